#include "platform/FrontWindow.h"

#include <cstdint>

namespace vesk {
namespace {

// Walks the file's big-endian fields without ever stepping past its end.
class AuthorityReader {
 public:
  explicit AuthorityReader(std::string_view bytes) : bytes_(bytes) {}

  bool atEnd() const { return bytes_.empty(); }

  std::optional<std::uint16_t> number() {
    if (bytes_.size() < 2) return std::nullopt;
    const auto high = static_cast<unsigned char>(bytes_[0]);
    const auto low = static_cast<unsigned char>(bytes_[1]);
    bytes_.remove_prefix(2);
    return static_cast<std::uint16_t>(high << 8 | low);
  }

  std::optional<std::string_view> counted() {
    const std::optional<std::uint16_t> length = number();
    if (!length || bytes_.size() < *length) return std::nullopt;
    const std::string_view field = bytes_.substr(0, *length);
    bytes_.remove_prefix(*length);
    return field;
  }

 private:
  std::string_view bytes_;
};

class NoFrontWindow : public FrontWindow {
 public:
  std::optional<pid_t> activeProcess() override { return std::nullopt; }
  void watch(std::function<void()>) override {}
};

}  // namespace

std::optional<XAuthority> xAuthorityFor(std::string_view file, std::string_view displayNumber) {
  AuthorityReader reader(file);
  std::optional<XAuthority> forDisplay;
  std::optional<XAuthority> forAnyDisplay;
  while (!reader.atEnd()) {
    // Family and address, which name the display's host, are not compared: the display is on
    // this machine and the file is its user's. Only a home shared by several machines can
    // hold another machine's entry for the same number.
    const bool hasFamily = reader.number().has_value();
    const std::optional<std::string_view> address = reader.counted();
    const std::optional<std::string_view> number = reader.counted();
    const std::optional<std::string_view> name = reader.counted();
    const std::optional<std::string_view> data = reader.counted();
    // A file that ends inside a record was cut short or damaged: none of it is trusted, not
    // even the records before the damage.
    if (!hasFamily || !address || !number || !name || !data) return std::nullopt;
    // The first fitting entry wins, as it does for the user's own X programs.
    if (*number == displayNumber && !forDisplay) {
      forDisplay = XAuthority{std::string(*name), std::string(*data)};
    } else if (number->empty() && !forAnyDisplay) {
      forAnyDisplay = XAuthority{std::string(*name), std::string(*data)};
    }
  }
  return forDisplay ? forDisplay : forAnyDisplay;
}

std::unique_ptr<FrontWindow> makeNoFrontWindow() { return std::make_unique<NoFrontWindow>(); }

}  // namespace vesk
