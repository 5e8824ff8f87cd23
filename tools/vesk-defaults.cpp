// vesk-defaults: reads and writes keys of property-list files by path, as the system's
// `defaults` does with a path for a domain.
//
//   vesk-defaults read PATH [KEY]
//   vesk-defaults write PATH KEY VALUE
//   vesk-defaults write PATH KEY -bool|-boolean|-int|-integer|-float|-string VALUE
//   vesk-defaults delete PATH KEY
//
// PATH names the file with or without ".plist". `read` prints a string raw, a boolean as 1
// or 0, a number as its digits and a container as an XML property list. A file it writes is
// an XML property list, replaced in one rename so that no reader ever sees half of it.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/FileManager.h"
#include "foundation/PropertyList.h"
#include "foundation/StringHelpers.h"
#include "foundation/Value.h"

namespace {

using vesk::Dictionary;
using vesk::Value;

constexpr int kFailure = 1;

int usage() {
  std::fputs(
      "Usage: vesk-defaults read PATH [KEY]\n"
      "       vesk-defaults write PATH KEY VALUE\n"
      "       vesk-defaults write PATH KEY -bool|-boolean|-int|-integer|-float|-string VALUE\n"
      "       vesk-defaults delete PATH KEY\n",
      stderr);
  return kFailure;
}

int fail(const std::string& message) {
  fmt::print(stderr, "{}\n", message);
  return kFailure;
}

int missingPair(std::string_view domain, std::string_view key) {
  return fail(fmt::format("The domain/default pair of ({}, {}) does not exist", domain, key));
}

// The file a domain names: the path itself, with ".plist" appended unless it has it.
std::string fileFor(std::string_view domain) {
  constexpr std::string_view kExtension = ".plist";
  std::string path(domain);
  if (path.size() < kExtension.size() ||
      path.compare(path.size() - kExtension.size(), kExtension.size(), kExtension) != 0)
    path += kExtension;
  return path;
}

// The file's dictionary; nullopt when there is no file or it holds no dictionary.
std::optional<Dictionary> readDictionary(const std::string& path) {
  const Value parsed = vesk::readPropertyListFile(path);
  if (const Dictionary* dictionary = parsed.dictionary()) return *dictionary;
  return std::nullopt;
}

std::string textFor(const Value& value) {
  if (value.isDictionary() || value.isArray()) return vesk::xmlPropertyList(value);
  return value.description() + "\n";
}

int read(const std::vector<std::string>& args) {
  if (args.size() < 1 || args.size() > 2) return usage();
  const std::string& domain = args[0];
  const std::optional<Dictionary> dictionary = readDictionary(fileFor(domain));
  if (args.size() == 1) {
    if (!dictionary) return fail(fmt::format("Domain {} does not exist", domain));
    std::fputs(textFor(Value(*dictionary)).c_str(), stdout);
    return 0;
  }
  const Value* value = dictionary ? dictionary->find(args[1]) : nullptr;
  if (value == nullptr) return missingPair(domain, args[1]);
  const std::string text = textFor(*value);
  std::fwrite(text.data(), 1, text.size(), stdout);
  return 0;
}

std::optional<Value> typedValue(std::string_view type, const std::string& text) {
  if (type == "-string") return Value(text);
  if (type == "-bool" || type == "-boolean") {
    const std::string lower = vesk::lowercaseString(text);
    if (lower == "true" || lower == "yes" || lower == "1") return Value(true);
    if (lower == "false" || lower == "no" || lower == "0") return Value(false);
    return std::nullopt;
  }
  char* end = nullptr;
  errno = 0;
  if (type == "-int" || type == "-integer") {
    const long long number = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE) return std::nullopt;
    return Value(number);
  }
  const double number = std::strtod(text.c_str(), &end);  // -float
  if (text.empty() || *end != '\0' || errno == ERANGE) return std::nullopt;
  return Value(number);
}

bool isTypeFlag(std::string_view word) {
  for (const char* flag : {"-bool", "-boolean", "-int", "-integer", "-float", "-string"})
    if (word == flag) return true;
  return false;
}

// Holds the lock on the folder of a file for one read-change-write, so that two writers of
// files in that folder never lose each other's keys. The file itself cannot carry the lock:
// each write replaces it with a new one.
class FolderLock {
 public:
  explicit FolderLock(const std::string& file) {
    const std::size_t slash = file.find_last_of('/');
    const std::string folder =
        slash == std::string::npos ? "." : (slash == 0 ? "/" : file.substr(0, slash));
    fd_ = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ >= 0) ::flock(fd_, LOCK_EX);
  }
  ~FolderLock() {
    if (fd_ >= 0) ::close(fd_);
  }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  int fd_ = -1;
};

// Applies `change` to the file's dictionary and writes it back. A file that exists but holds
// no dictionary is left alone: overwriting it would lose whatever it is.
template <typename Change>
int update(const std::string& domain, Change change) {
  const std::string path = fileFor(domain);
  FolderLock lock(path);
  Dictionary dictionary;
  if (vesk::fileExistsAtPath(path)) {
    const std::optional<std::string> bytes = vesk::contentsAtPath(path);
    std::optional<Dictionary> found;
    if (bytes && bytes->empty()) found = Dictionary();
    if (bytes && !bytes->empty()) {
      const Value parsed = vesk::propertyListFromBytes(*bytes);
      if (const Dictionary* d = parsed.dictionary()) found = *d;
    }
    if (!found)
      return fail(fmt::format("Could not change {}: it is not a property list dictionary", path));
    dictionary = std::move(*found);
  }
  if (const int status = change(dictionary, path); status != 0) return status;
  vesk::Error error;
  if (!vesk::writePropertyListAtomically(path, Value(std::move(dictionary)), &error))
    return fail(error.localizedDescription());
  return 0;
}

int write(const std::vector<std::string>& args) {
  if (args.size() != 3 && args.size() != 4) return usage();
  const std::string& key = args[1];
  std::optional<Value> value;
  if (args.size() == 3) {
    if (isTypeFlag(args[2])) return usage();
    value = Value(args[2]);
  } else {
    if (!isTypeFlag(args[2])) return usage();
    value = typedValue(args[2], args[3]);
    if (!value)
      return fail(fmt::format("Cannot read \"{}\" as a value of type {}", args[3], args[2]));
  }
  return update(args[0], [&](Dictionary& dictionary, const std::string&) {
    dictionary.set(key, std::move(*value));
    return 0;
  });
}

int remove(const std::vector<std::string>& args) {
  if (args.size() != 2) return usage();
  const std::string& domain = args[0];
  const std::string& key = args[1];
  if (!vesk::fileExistsAtPath(fileFor(domain)))
    return fail(fmt::format("Domain ({}) not found.\nDefaults have not been changed.", domain));
  return update(domain, [&](Dictionary& dictionary, const std::string&) {
    if (!dictionary.contains(key)) return missingPair(domain, key);
    dictionary.remove(key);
    return 0;
  });
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  const std::string_view verb = argv[1];
  const std::vector<std::string> args(argv + 2, argv + argc);
  if (verb == "read") return read(args);
  if (verb == "write") return write(args);
  if (verb == "delete") return remove(args);
  return usage();
}
