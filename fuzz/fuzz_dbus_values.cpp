// A userInfo dictionary as another process may send it: any bytes taken as a{sv}, as the bus
// hands them over (not trusted to be in normal form), read into a dictionary and written back.

#include <gio/gio.h>

#include <cstddef>
#include <cstdint>

#include "notifications/DBusValue.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  GBytes* bytes = g_bytes_new(data, size);
  GVariant* variant =
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE("a{sv}"), bytes, FALSE));
  const vesk::Dictionary dictionary = vesk::dictionaryFromVariant(variant);
  GVariant* back = g_variant_ref_sink(vesk::variantFromDictionary(dictionary));
  // What is read once reads the same again (compared as text: NaN is not equal to itself).
  if (vesk::Value(vesk::dictionaryFromVariant(back)).description() !=
      vesk::Value(dictionary).description())
    __builtin_trap();
  g_variant_unref(back);
  g_variant_unref(variant);
  g_bytes_unref(bytes);
  return 0;
}
