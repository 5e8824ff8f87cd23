#pragma once

#include <string>
#include <string_view>

#include "foundation/Error.h"
#include "foundation/Value.h"

namespace vesk {

// The error domain and code of a property list that cannot be read.
inline constexpr const char* kPropertyListErrorDomain = "NSCocoaErrorDomain";
inline constexpr int kPropertyListReadCorruptError = 3840;

// Reads a property list from bytes in any of its three forms: XML, binary ("bplist00"), or
// the text form that `defaults read` prints ("{ key = value; list = (a, b); }"). Nil, with
// the error set, when the bytes are none of them. Dates read as ISO 8601 strings.
Value propertyListFromBytes(std::string_view bytes, Error* error = nullptr);
// Nil, with the error set, when the file cannot be read or parsed.
Value readPropertyListFile(const std::string& path, Error* error = nullptr);

// Whether the bytes start as a binary property list does.
bool isBinaryPropertyList(std::string_view bytes);

// Only the text form; the reader of propertyListFromBytes for text that is not XML.
Value propertyListFromOpenStepText(std::string_view text, Error* error = nullptr);

// The value as an XML or binary property list. Nil members are left out; an error object is
// written as its description.
std::string xmlPropertyList(const Value& value);
std::string binaryPropertyList(const Value& value);

// Writes the XML form to a temporary file beside `path` and renames it over `path`, so that a
// reader never sees half a file. A new file gets mode 0644; an existing one keeps its mode,
// and its owner and group when this process runs as root.
bool writePropertyListAtomically(const std::string& path, const Value& value,
                                 Error* error = nullptr);

}  // namespace vesk
