#include "platform/LoginSession.h"

#include <glib.h>

#include <cstring>

namespace vesk {
namespace {

constexpr const char* kSessionInterface = "org.freedesktop.login1.Session";

void takeBoolean(GVariant* value, std::optional<bool>& into) {
  if (g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN))
    into = g_variant_get_boolean(value) != FALSE;
}

// `changed` is "a{sv}". A property that arrives with another type than the login manager's is
// left out rather than guessed at.
void readChanged(GVariant* changed, SessionProperties& into) {
  GVariantIter iter;
  g_variant_iter_init(&iter, changed);
  const gchar* name = nullptr;
  GVariant* value = nullptr;
  while (g_variant_iter_next(&iter, "{&sv}", &name, &value)) {
    if (std::strcmp(name, "Active") == 0) {
      takeBoolean(value, into.active);
    } else if (std::strcmp(name, "LockedHint") == 0) {
      takeBoolean(value, into.lockedHint);
    } else if (std::strcmp(name, "IdleHint") == 0) {
      takeBoolean(value, into.idleHint);
    } else if (std::strcmp(name, "State") == 0 &&
               g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
      into.state = g_variant_get_string(value, nullptr);
    }
    g_variant_unref(value);
  }
}

}  // namespace

SessionProperties sessionPropertiesFromSignal(GVariant* parameters) {
  SessionProperties properties;
  if (parameters == nullptr || !g_variant_is_of_type(parameters, G_VARIANT_TYPE("(sa{sv}as)")))
    return properties;
  const gchar* interface = nullptr;
  GVariant* changed = nullptr;
  GVariant* invalidated = nullptr;
  g_variant_get(parameters, "(&s@a{sv}@as)", &interface, &changed, &invalidated);
  if (std::strcmp(interface, kSessionInterface) == 0) {
    readChanged(changed, properties);
    GVariantIter iter;
    g_variant_iter_init(&iter, invalidated);
    const gchar* name = nullptr;
    while (g_variant_iter_next(&iter, "&s", &name)) properties.invalidated.emplace_back(name);
  }
  g_variant_unref(changed);
  g_variant_unref(invalidated);
  return properties;
}

SessionProperties sessionPropertiesFromDictionary(GVariant* properties) {
  SessionProperties decoded;
  if (properties != nullptr && g_variant_is_of_type(properties, G_VARIANT_TYPE_VARDICT))
    readChanged(properties, decoded);
  return decoded;
}

}  // namespace vesk
