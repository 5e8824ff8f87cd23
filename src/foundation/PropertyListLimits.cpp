#include "foundation/PropertyListLimits.h"

#include <algorithm>
#include <cstdint>
#include <vector>

namespace vesk {
namespace {

constexpr const char* kZeroCharacter = "The property list holds a zero character.";
constexpr const char* kTooDeep = "The property list is nested too deeply.";
constexpr const char* kDamaged = "The binary property list is damaged.";

// The binary form: a header, the objects, a table of their offsets and a 32-byte trailer that
// says where the table is, how wide its entries and the objects' references are, how many
// objects there are and which is the top one.
class BinaryLayout {
 public:
  explicit BinaryLayout(std::string_view bytes) : bytes_(bytes) {}

  bool readTrailer() {
    if (bytes_.size() < 8 + kTrailerSize) return false;
    end_ = bytes_.size() - kTrailerSize;
    offsetSize_ = byte(end_ + 6);
    refSize_ = byte(end_ + 7);
    std::uint64_t table = 0;
    if (!number(end_ + 8, 8, &count_) || !number(end_ + 16, 8, &top_) ||
        !number(end_ + 24, 8, &table))
      return false;
    if (offsetSize_ == 0 || offsetSize_ > 8 || refSize_ == 0 || refSize_ > 8) return false;
    if (count_ == 0 || top_ >= count_ || table < 8 || table > end_) return false;
    if (count_ > (end_ - table) / offsetSize_) return false;
    offsets_.resize(count_);
    for (std::size_t i = 0; i < count_; ++i) {
      if (!number(table + i * offsetSize_, offsetSize_, &offsets_[i])) return false;
      if (offsets_[i] < 8 || offsets_[i] >= end_) return false;
    }
    return true;
  }

  // One object as far as the checks need it: where its references are, how many, and
  // whether it is a string with a zero character.
  struct Object {
    std::size_t refsAt = 0;
    std::size_t refCount = 0;
    bool container = false;
    bool zeroCharacter = false;
  };
  bool object(std::size_t index, Object* out) const {
    const std::size_t at = offsets_[index];
    const unsigned marker = byte(at);
    const unsigned type = marker >> 4;
    std::size_t length = marker & 0xF;
    std::size_t start = at + 1;
    const bool sized = type == 0x4 || type == 0x5 || type == 0x6 || type == 0x7 || type >= 0xA;
    if (sized && length == 0xF) {
      // The length follows as an integer object of 1, 2, 4 or 8 bytes.
      const unsigned lengthMarker = byte(at + 1);
      if ((lengthMarker >> 4) != 0x1 || (lengthMarker & 0xF) > 3) return false;
      const std::size_t width = std::size_t{1} << (lengthMarker & 0xF);
      std::uint64_t value = 0;
      if (!number(at + 2, width, &value) || value > end_) return false;
      length = value;
      start = at + 2 + width;
    }
    *out = Object{};
    switch (type) {
      case 0x5:  // ASCII
      case 0x7:  // UTF-8
        if (length > end_ - std::min(start, end_)) return false;
        out->zeroCharacter = bytes_.substr(start, length).find('\0') != std::string_view::npos;
        return true;
      case 0x6:  // UTF-16, big-endian
        if (length > (end_ - std::min(start, end_)) / 2) return false;
        for (std::size_t i = 0; i < length && !out->zeroCharacter; ++i)
          out->zeroCharacter = byte(start + 2 * i) == 0 && byte(start + 2 * i + 1) == 0;
        return true;
      case 0xA:  // array
      case 0xB:  // ordered set
      case 0xC:  // set
      case 0xD:  // dictionary: the keys' references, then the values'
        out->container = true;
        out->refsAt = start;
        out->refCount = type == 0xD ? 2 * length : length;
        return out->refCount <= (end_ - std::min(start, end_)) / refSize_;
      default:
        return true;
    }
  }

  bool reference(const Object& object, std::size_t i, std::size_t* index) const {
    std::uint64_t value = 0;
    if (!number(object.refsAt + i * refSize_, refSize_, &value) || value >= count_) return false;
    *index = value;
    return true;
  }

  std::size_t count() const { return count_; }
  std::size_t top() const { return top_; }

 private:
  static constexpr std::size_t kTrailerSize = 32;

  unsigned byte(std::size_t at) const {
    return at < bytes_.size() ? static_cast<unsigned char>(bytes_[at]) : 0;
  }
  bool number(std::size_t at, std::size_t width, std::uint64_t* out) const {
    if (at > bytes_.size() || width > bytes_.size() - at) return false;
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) value = value << 8 | byte(at + i);
    *out = value;
    return true;
  }

  std::string_view bytes_;
  std::size_t end_ = 0;  // where the trailer starts
  unsigned offsetSize_ = 0;
  unsigned refSize_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t top_ = 0;
  std::vector<std::uint64_t> offsets_;
};

}  // namespace

std::string xmlPropertyListHazard(std::string_view xml) {
  if (xml.find('\0') != std::string_view::npos) return kZeroCharacter;
  int depth = 0;
  std::size_t at = 0;
  while ((at = xml.find('<', at)) != std::string_view::npos) {
    const std::string_view rest = xml.substr(at);
    std::string_view close = ">";
    if (rest.starts_with("<!--")) close = "-->";
    if (rest.starts_with("<![CDATA[")) close = "]]>";
    const std::size_t end = xml.find(close, at + 1);
    if (end == std::string_view::npos) break;  // unfinished: the reader refuses it anyway
    std::string_view tag = xml.substr(at + 1, end - at - 1);
    at = end + close.size();
    if (close != ">" || tag.empty() || tag.back() == '/') continue;
    const bool closing = tag.front() == '/';
    if (closing) tag.remove_prefix(1);
    tag = tag.substr(0, tag.find_first_of(" \t\r\n"));
    if (tag != "array" && tag != "dict") continue;
    if (closing) {
      depth = std::max(0, depth - 1);
    } else if (++depth > kMaxPropertyListDepth) {
      return kTooDeep;
    }
  }
  return "";
}

std::string binaryPropertyListHazard(std::string_view bytes) {
  BinaryLayout layout(bytes);
  if (!layout.readTrailer()) return kDamaged;

  // A walk from the top object down every reference, without recursion, that learns each
  // object's depth and the number of values it stands for once; objects referred to from
  // several places cost nothing more.
  enum : std::uint8_t { kUnseen, kOpen, kDone };
  std::vector<std::uint8_t> state(layout.count(), kUnseen);
  std::vector<std::uint32_t> depth(layout.count(), 0);
  std::vector<std::size_t> values(layout.count(), 0);
  struct Frame {
    std::size_t index;
    BinaryLayout::Object object;
    std::size_t next = 0;
    std::uint32_t deepest = 0;
    std::size_t values = 1;
  };
  std::vector<Frame> path;
  auto visit = [&](std::size_t index) -> std::string {
    BinaryLayout::Object object;
    if (!layout.object(index, &object)) return kDamaged;
    if (object.zeroCharacter) return kZeroCharacter;
    if (!object.container) {
      state[index] = kDone;
      values[index] = 1;
      return "";
    }
    if (path.size() >= static_cast<std::size_t>(kMaxPropertyListDepth)) return kTooDeep;
    state[index] = kOpen;
    path.push_back(Frame{index, object});
    return "";
  };
  if (std::string why = visit(layout.top()); !why.empty()) return why;
  while (!path.empty()) {
    Frame& frame = path.back();
    if (frame.next < frame.object.refCount) {
      std::size_t child = 0;
      if (!layout.reference(frame.object, frame.next++, &child)) return kDamaged;
      if (state[child] == kOpen) return kDamaged;  // a container inside itself
      if (state[child] == kUnseen) {
        if (std::string why = visit(child); !why.empty()) return why;
        if (state[child] == kOpen) continue;
      }
      frame.deepest = std::max(frame.deepest, depth[child]);
      frame.values = std::min(frame.values + values[child], kMaxBinaryPropertyListValues + 1);
      continue;
    }
    const Frame done = frame;
    path.pop_back();
    state[done.index] = kDone;
    depth[done.index] = done.deepest + 1;
    values[done.index] = done.values;
    if (depth[done.index] > static_cast<std::uint32_t>(kMaxPropertyListDepth)) return kTooDeep;
    if (done.values > kMaxBinaryPropertyListValues)
      return "The property list stands for too many values.";
    if (!path.empty()) {
      Frame& parent = path.back();
      parent.deepest = std::max(parent.deepest, depth[done.index]);
      parent.values = std::min(parent.values + done.values, kMaxBinaryPropertyListValues + 1);
    }
  }
  return "";
}

}  // namespace vesk
