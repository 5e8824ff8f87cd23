#include "notifications/DBusValue.h"

#include <glib.h>

#include "foundation/Error.h"
#include "foundation/StringHelpers.h"

namespace vesk {
namespace {

GVariant* stringVariant(const std::string& text) {
  if (g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr))
    return g_variant_new_string(text.c_str());
  return g_variant_new_string(makeValidUtf8(text).c_str());
}

Array arrayFromVariant(GVariant* variant) {
  Array array;
  const gsize count = g_variant_n_children(variant);
  array.reserve(count);
  for (gsize i = 0; i < count; ++i) {
    GVariant* child = g_variant_get_child_value(variant, i);
    Value value = valueFromVariant(child);
    g_variant_unref(child);
    if (!value.isNil()) array.push_back(std::move(value));
  }
  return array;
}

// Any dictionary whose keys are strings: a{sv} and its relatives.
Dictionary stringKeyedFromVariant(GVariant* variant) {
  Dictionary dictionary;
  const gsize count = g_variant_n_children(variant);
  for (gsize i = 0; i < count; ++i) {
    GVariant* entry = g_variant_get_child_value(variant, i);
    GVariant* key = g_variant_get_child_value(entry, 0);
    GVariant* value = g_variant_get_child_value(entry, 1);
    Value converted = valueFromVariant(value);
    if (!converted.isNil())
      dictionary.set(g_variant_get_string(key, nullptr), std::move(converted));
    g_variant_unref(value);
    g_variant_unref(key);
    g_variant_unref(entry);
  }
  return dictionary;
}

}  // namespace

GVariant* variantFromDictionary(const Dictionary& dictionary) {
  GVariantBuilder builder;
  g_variant_builder_init(&builder, G_VARIANT_TYPE("a{sv}"));
  for (const auto& [key, value] : dictionary) {
    if (value.isNil()) continue;
    g_variant_builder_add(&builder, "{@sv}", stringVariant(key), variantFromValue(value));
  }
  return g_variant_builder_end(&builder);
}

GVariant* variantFromValue(const Value& value) {
  switch (value.type()) {
    case Value::Type::Bool:
      return g_variant_new_boolean(value.boolValue());
    case Value::Type::Int:
      return g_variant_new_int64(value.integerValue());
    case Value::Type::UInt:
      return g_variant_new_uint64(value.unsignedIntegerValue());
    case Value::Type::Double:
      return g_variant_new_double(value.doubleValue());
    case Value::Type::String:
      return stringVariant(*value.string());
    case Value::Type::Data: {
      const Data& bytes = *value.data();
      return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1);
    }
    case Value::Type::Array: {
      GVariantBuilder builder;
      g_variant_builder_init(&builder, G_VARIANT_TYPE("av"));
      for (const Value& item : *value.array())
        if (!item.isNil()) g_variant_builder_add(&builder, "v", variantFromValue(item));
      return g_variant_builder_end(&builder);
    }
    case Value::Type::Dictionary:
      return variantFromDictionary(*value.dictionary());
    case Value::Type::Error: {
      const Error& error = *value.error();
      return g_variant_new("(@sx@a{sv})", stringVariant(error.domain()),
                           static_cast<gint64>(error.code()),
                           variantFromDictionary(error.userInfo()));
    }
    case Value::Type::Nil:
      break;
  }
  return g_variant_new_string("");  // never reached: nil members are left out
}

std::optional<std::string> objectFromWire(const char* object) {
  if (object == nullptr || *object == '\0') return std::nullopt;
  return std::string(object);
}

Dictionary dictionaryFromVariant(GVariant* variant) {
  Value value = valueFromVariant(variant);
  if (Dictionary* dictionary = value.dictionary()) return std::move(*dictionary);
  return Dictionary();
}

Value valueFromVariant(GVariant* variant) {
  if (variant == nullptr) return Value();
  const GVariantType* type = g_variant_get_type(variant);
  switch (g_variant_classify(variant)) {
    case G_VARIANT_CLASS_BOOLEAN:
      return Value(g_variant_get_boolean(variant) != FALSE);
    case G_VARIANT_CLASS_BYTE:
      return Value(static_cast<unsigned>(g_variant_get_byte(variant)));
    case G_VARIANT_CLASS_INT16:
      return Value(static_cast<int>(g_variant_get_int16(variant)));
    case G_VARIANT_CLASS_UINT16:
      return Value(static_cast<unsigned>(g_variant_get_uint16(variant)));
    case G_VARIANT_CLASS_INT32:
      return Value(static_cast<long long>(g_variant_get_int32(variant)));
    case G_VARIANT_CLASS_UINT32:
      return Value(static_cast<unsigned long long>(g_variant_get_uint32(variant)));
    case G_VARIANT_CLASS_INT64:
      return Value(static_cast<long long>(g_variant_get_int64(variant)));
    case G_VARIANT_CLASS_UINT64:
      return Value(static_cast<unsigned long long>(g_variant_get_uint64(variant)));
    case G_VARIANT_CLASS_DOUBLE:
      return Value(g_variant_get_double(variant));
    case G_VARIANT_CLASS_STRING:
    case G_VARIANT_CLASS_OBJECT_PATH:
    case G_VARIANT_CLASS_SIGNATURE:
      return Value(std::string(g_variant_get_string(variant, nullptr)));
    case G_VARIANT_CLASS_VARIANT: {
      GVariant* inner = g_variant_get_variant(variant);
      Value value = valueFromVariant(inner);
      g_variant_unref(inner);
      return value;
    }
    case G_VARIANT_CLASS_ARRAY: {
      if (g_variant_type_equal(type, G_VARIANT_TYPE_BYTESTRING)) {
        gsize size = 0;
        const auto* bytes =
            static_cast<const std::uint8_t*>(g_variant_get_fixed_array(variant, &size, 1));
        return Value(Data(bytes, bytes + size));
      }
      const GVariantType* element = g_variant_type_element(type);
      if (g_variant_type_is_dict_entry(element)) {
        if (!g_variant_type_equal(g_variant_type_key(element), G_VARIANT_TYPE_STRING))
          return Value();
        return Value(stringKeyedFromVariant(variant));
      }
      return Value(arrayFromVariant(variant));
    }
    case G_VARIANT_CLASS_TUPLE:
      if (g_variant_type_equal(type, G_VARIANT_TYPE("(sxa{sv})"))) {
        const gchar* domain = nullptr;
        gint64 code = 0;
        GVariant* info = nullptr;
        g_variant_get(variant, "(&sx@a{sv})", &domain, &code, &info);
        Error error(domain, code, dictionaryFromVariant(info));
        g_variant_unref(info);
        return Value(std::move(error));
      }
      return Value();
    default:
      return Value();  // maybe types, handles, other structures: left out
  }
}

}  // namespace vesk
