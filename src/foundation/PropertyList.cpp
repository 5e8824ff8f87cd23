#include "foundation/PropertyList.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <plist/plist.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "foundation/FileManager.h"
#include "foundation/PropertyListLimits.h"

namespace vesk {
namespace {

struct PlistDeleter {
  void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

// Seconds between the Unix epoch and the property-list epoch, 2001-01-01T00:00:00Z.
constexpr std::int64_t kPlistEpoch = 978307200;

Error readError(std::string_view why) {
  return Error(kPropertyListErrorDomain, kPropertyListReadCorruptError,
               {{kLocalizedDescriptionKey, Value(std::string(why))}});
}

Value fromNode(plist_t node) {
  switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
      uint8_t b = 0;
      plist_get_bool_val(node, &b);
      return Value(b != 0);
    }
    case PLIST_UINT: {
      // libplist keeps every integer in 64 unsigned bits; a value with the top bit set was
      // written as a negative number (the client never stores integers that large).
      uint64_t u = 0;
      plist_get_uint_val(node, &u);
      return Value(static_cast<std::int64_t>(u));
    }
    case PLIST_UID: {
      uint64_t u = 0;
      plist_get_uid_val(node, &u);
      return Value(static_cast<std::uint64_t>(u));
    }
    case PLIST_REAL: {
      double d = 0;
      plist_get_real_val(node, &d);
      return Value(d);
    }
    case PLIST_STRING: {
      uint64_t length = 0;
      const char* text = plist_get_string_ptr(node, &length);
      return Value(text != nullptr ? std::string(text, length) : std::string());
    }
    case PLIST_DATA: {
      char* bytes = nullptr;
      uint64_t length = 0;
      plist_get_data_val(node, &bytes, &length);
      Data data(reinterpret_cast<uint8_t*>(bytes), reinterpret_cast<uint8_t*>(bytes) + length);
      free(bytes);
      return Value(std::move(data));
    }
    case PLIST_DATE: {
      int32_t sec = 0, usec = 0;
      plist_get_date_val(node, &sec, &usec);
      const std::time_t t = static_cast<std::time_t>(kPlistEpoch + sec);
      std::tm tm{};
      gmtime_r(&t, &tm);
      char text[32];
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
      return Value(std::string(text));
    }
    case PLIST_ARRAY: {
      Array items;
      const uint32_t n = plist_array_get_size(node);
      items.reserve(n);
      for (uint32_t i = 0; i < n; ++i) items.push_back(fromNode(plist_array_get_item(node, i)));
      return Value(std::move(items));
    }
    case PLIST_DICT: {
      Dictionary dict;
      plist_dict_iter it = nullptr;
      plist_dict_new_iter(node, &it);
      while (true) {
        char* key = nullptr;
        plist_t item = nullptr;
        plist_dict_next_item(node, it, &key, &item);
        if (key == nullptr) break;
        dict.set(key, fromNode(item));
        free(key);
      }
      free(it);
      return Value(std::move(dict));
    }
    default:
      return Value();
  }
}

plist_t toNode(const Value& value) {
  switch (value.type()) {
    case Value::Type::Nil:
      return nullptr;
    case Value::Type::Bool:
      return plist_new_bool(value.boolValue() ? 1 : 0);
    case Value::Type::Int:
      return plist_new_uint(static_cast<uint64_t>(value.integerValue()));
    case Value::Type::UInt:
      return plist_new_uint(value.unsignedIntegerValue());
    case Value::Type::Double:
      return plist_new_real(value.doubleValue());
    case Value::Type::String:
      return plist_new_string(value.string()->c_str());
    case Value::Type::Data: {
      const Data& d = *value.data();
      return plist_new_data(reinterpret_cast<const char*>(d.data()), d.size());
    }
    case Value::Type::Array: {
      plist_t array = plist_new_array();
      for (const Value& item : *value.array())
        if (plist_t node = toNode(item)) plist_array_append_item(array, node);
      return array;
    }
    case Value::Type::Dictionary: {
      plist_t dict = plist_new_dict();
      for (const auto& [key, item] : *value.dictionary())
        if (plist_t node = toNode(item)) plist_dict_set_item(dict, key.c_str(), node);
      return dict;
    }
    case Value::Type::Error:
      return plist_new_string(value.error()->description().c_str());
  }
  return nullptr;
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

bool looksLikeXml(std::string_view bytes) {
  std::size_t i = 0;
  if (startsWith(bytes, "\xEF\xBB\xBF")) i = 3;
  while (i < bytes.size() &&
         (bytes[i] == ' ' || bytes[i] == '\t' || bytes[i] == '\n' || bytes[i] == '\r'))
    ++i;
  return startsWith(bytes.substr(i), "<?xml") || startsWith(bytes.substr(i), "<!DOCTYPE") ||
         startsWith(bytes.substr(i), "<plist");
}

}  // namespace

bool isBinaryPropertyList(std::string_view bytes) { return bytes.substr(0, 8) == "bplist00"; }

Value propertyListFromBytes(std::string_view bytes, Error* error) {
  if (bytes.size() > UINT32_MAX) {
    setError(error, readError("The property list is too large."));
    return Value();
  }
  const auto length = static_cast<uint32_t>(bytes.size());
  plist_t root = nullptr;
  const bool binary = isBinaryPropertyList(bytes);
  if (!binary && !looksLikeXml(bytes)) return propertyListFromOpenStepText(bytes, error);
  // libplist is handed only what it can read safely.
  const std::string hazard =
      binary ? binaryPropertyListHazard(bytes) : xmlPropertyListHazard(bytes);
  if (!hazard.empty()) {
    setError(error, readError(hazard));
    return Value();
  }
  if (binary) {
    plist_from_bin(bytes.data(), length, &root);
  } else {
    plist_from_xml(bytes.data(), length, &root);
  }
  PlistPtr owner(root);
  if (root == nullptr) {
    setError(error, readError("The data couldn\u2019t be read because it isn\u2019t in the correct "
                              "format."));
    return Value();
  }
  return fromNode(root);
}

Value readPropertyListFile(const std::string& path, Error* error) {
  const std::optional<std::string> bytes = contentsAtPath(path);
  if (!bytes) {
    setError(error,
             readError(fmt::format("The file \u201c{}\u201d couldn\u2019t be opened.", path)));
    return Value();
  }
  return propertyListFromBytes(*bytes, error);
}

std::string xmlPropertyList(const Value& value) {
  PlistPtr root(toNode(value));
  if (!root) return {};
  char* text = nullptr;
  uint32_t length = 0;
  plist_to_xml(root.get(), &text, &length);
  std::string out(text ? text : "", length);
  plist_to_xml_free(text);
  return out;
}

std::string binaryPropertyList(const Value& value) {
  PlistPtr root(toNode(value));
  if (!root) return {};
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(root.get(), &bytes, &length);
  std::string out(bytes ? bytes : "", length);
  plist_to_bin_free(bytes);
  return out;
}

bool writePropertyListAtomically(const std::string& path, const Value& value, Error* error) {
  auto fail = [&](const char* what) {
    setError(error, Error("NSPOSIXErrorDomain", errno,
                          {{kLocalizedDescriptionKey,
                            Value(fmt::format("{} {}: {}", what, path, std::strerror(errno)))}}));
    return false;
  };
  // A new file gets 0644; the file it replaces keeps its mode, and its owner and group as far
  // as this process may give files away.
  FileAttributes attributes{::geteuid(), ::getegid(), 0644};
  struct stat st {};
  if (::stat(path.c_str(), &st) == 0) attributes = {st.st_uid, st.st_gid, st.st_mode & 07777};
  bool madeTemporary = false;
  if (!writeFileAtomically(path, xmlPropertyList(value), attributes, &madeTemporary))
    return fail(madeTemporary ? "Failed to write the property list"
                              : "Failed to create a temporary file for");
  return true;
}

}  // namespace vesk
