#pragma once

#include <optional>
#include <string>

#include "foundation/Value.h"

typedef struct _GVariant GVariant;

namespace vesk {

// A userInfo dictionary as it travels on the bus, `a{sv}`: strings `s`, booleans `b`, signed
// integers `x`, unsigned `t`, doubles `d`, bytes `ay`, arrays `av`, dictionaries `a{sv}`
// and an error as `(sxa{sv})` (domain, code, userInfo). Nil members are left out; text that
// is not UTF-8 travels with U+FFFD in place of the bad bytes. The result is floating.
GVariant* variantFromDictionary(const Dictionary& dictionary);
GVariant* variantFromValue(const Value& value);

// The reverse. Besides the types above it reads the other integer widths, object paths and
// signatures (as strings), nested variants and any array or string-keyed dictionary; a value
// of any other type is left out, so whatever a peer sends reads as a clean dictionary.
Dictionary dictionaryFromVariant(GVariant* variant);
Value valueFromVariant(GVariant* variant);

// A notification's object as it travels: a string, where "" stands for none.
std::optional<std::string> objectFromWire(const char* object);

}  // namespace vesk
