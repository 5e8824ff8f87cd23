#pragma once

#include <string>
#include <string_view>

namespace vesk {

// How deeply containers may nest in a property list of any form. The readers recurse once per
// level; deeper lists are refused rather than risking the stack.
inline constexpr int kMaxPropertyListDepth = 512;
// How many values a binary property list may stand for once its shared references are
// expanded: a list of a few hundred bytes can otherwise stand for billions.
inline constexpr std::size_t kMaxBinaryPropertyListValues = 1000000;

// Property lists reach the client from files and programs that other users control, and
// libplist trusts what it reads: it aborts on a string holding a zero character, recurses
// once per level of nesting, and expands shared references without limit. These checks look
// at the bytes first and name the first reason to refuse them; "" when libplist may read them.
// A zero character in a string or key is refused, not truncated: a key that read differently
// here and in the program that wrote it could stand for another key.
std::string xmlPropertyListHazard(std::string_view xml);
std::string binaryPropertyListHazard(std::string_view bytes);

}  // namespace vesk
