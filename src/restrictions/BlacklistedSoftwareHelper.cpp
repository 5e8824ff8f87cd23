#include "restrictions/BlacklistedSoftwareHelper.h"

#include <pugixml.hpp>

#include "foundation/FileManager.h"
#include "foundation/Paths.h"
#include "foundation/StringHelpers.h"
#include "logging/VKLogging.h"

namespace vesk {
namespace {

// The text of a node itself, without that of the elements inside it: an element nested in a
// process (another entry, even) must not become part of its pattern, and reading only the
// node's own text keeps loading linear however deeply entries are nested.
std::string ownText(const pugi::xml_node& node) {
  std::string text;
  for (const pugi::xml_node& child : node.children())
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata)
      text += child.value();
  return text;
}

// The stripped text of the first child named `name`; nullopt when there is none.
std::optional<std::string> childText(const pugi::xml_node& node, const char* name) {
  const pugi::xml_node child = node.child(name);
  if (!child) return std::nullopt;
  return strip(ownText(child));
}

bool childBool(const pugi::xml_node& node, const char* name) {
  const std::optional<std::string> text = childText(node, name);
  return text && boolValue(*text);
}

}  // namespace

Blacklist BlacklistedSoftwareHelper::loadBlacklistedSoftware() {
  const std::string path = fsPath("/Library/Application Support/VESK/.blacklist.xml");
  const std::optional<std::string> bytes = contentsAtPath(path);
  // The file is UTF-8 text; anything else is as unreadable as no file.
  if (!bytes || !isValidUtf8(*bytes)) return {};
  return loadBlacklistedSoftwareFromXMLString(*bytes);
}

Blacklist BlacklistedSoftwareHelper::loadBlacklistedSoftwareFromXMLString(std::string_view xml) {
  Blacklist list;
  pugi::xml_document document;
  if (!document.load_buffer(xml.data(), xml.size(), pugi::parse_default, pugi::encoding_utf8))
    return list;
  const pugi::xpath_node_set entries = document.select_nodes("//ns2:blacklisted");
  for (const pugi::xpath_node& found : entries) {
    const pugi::xml_node node = found.node();
    const std::optional<std::string> process = childText(node, "ns2:process");
    if (!process || process->empty()) continue;

    BlacklistedItem item;
    item.setBlacklistID(childText(node, "ns2:id"));
    item.setName(childText(node, "ns2:name"));
    item.setRequireExactMatch(childBool(node, "ns2:requireExactMatch"));
    item.setNotify(childBool(node, "ns2:notify"));
    item.setKillApp(childBool(node, "ns2:kill"));
    item.setDeleteApp(childBool(node, "ns2:delete"));
    item.setMessage(childText(node, "ns2:message"));
    // A pattern that already has a "*" is the author's own; a plain name matches anywhere.
    const bool wrap = !item.requireExactMatch() && process->find('*') == std::string::npos;
    item.setProcess(wrap ? "*" + *process + "*" : *process);

    try {
      for (const pugi::xpath_node& user : node.select_nodes("ns2:whitelistedUsers/ns2:username"))
        item.whitelistedUsers().set(strip(ownText(user.node())), Value(""));
    } catch (const pugi::xpath_exception& e) {
      VKLogging::logEvent("error parsing while list {}", e.what());
    }
    std::string key = *item.process();
    list.insert_or_assign(std::move(key), std::move(item));
  }
  return list;
}

}  // namespace vesk
