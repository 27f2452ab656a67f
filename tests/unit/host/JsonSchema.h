// The part of JSON Schema that docs/peripheralctl.schema.json uses.
#pragma once

#include <algorithm>
#include <nlohmann/json.hpp>
#include <regex>
#include <stdexcept>
#include <string>

class JsonSchema {
 public:
  using Json = nlohmann::json;

  explicit JsonSchema(Json root) : iRoot(std::move(root)) {}

  bool Admits(const Json& value) const { return Admits(iRoot, value); }

 private:
  bool Admits(const Json& schema, const Json& value) const {
    const auto& rules = schema.items();
    return std::all_of(rules.begin(), rules.end(),
                       [&](const auto& rule) { return Keeps(rule.key(), rule.value(), schema, value); });
  }

  bool Keeps(const std::string& name, const Json& rule, const Json& schema, const Json& value) const {
    if (name == "$ref") {
      return Admits(iRoot.at(Json::json_pointer(rule.get<std::string>().substr(1))), value);
    }
    if (name == "oneOf") {
      return std::count_if(rule.begin(), rule.end(), [&](const Json& s) { return Admits(s, value); }) == 1;
    }
    if (name == "type") {
      return rule.is_array()
                 ? std::any_of(rule.begin(), rule.end(), [&](const Json& t) { return IsA(t, value); })
                 : IsA(rule, value);
    }
    if (name == "const") {
      return value == rule;
    }
    if (name == "enum") {
      return std::find(rule.begin(), rule.end(), value) != rule.end();
    }
    if (name == "minimum") {
      return !value.is_number() || value >= rule;
    }
    if (name == "maximum") {
      return !value.is_number() || value <= rule;
    }
    if (name == "pattern") {
      return !value.is_string() ||
             std::regex_search(value.get<std::string>(), std::regex(rule.get<std::string>()));
    }
    if (name == "items") {
      return std::all_of(value.begin(), value.end(), [&](const Json& item) { return Admits(rule, item); });
    }
    if (name == "required") {
      return std::all_of(rule.begin(), rule.end(),
                         [&](const Json& key) { return value.contains(key.get<std::string>()); });
    }
    if (name == "properties") {
      const auto& known = rule.items();
      return std::all_of(known.begin(), known.end(), [&](const auto& property) {
        return !value.contains(property.key()) || Admits(property.value(), value.at(property.key()));
      });
    }
    if (name == "additionalProperties") {
      const auto& members = value.items();
      return std::all_of(members.begin(), members.end(),
                         [&](const auto& member) { return schema.at("properties").contains(member.key()); });
    }
    if (name == "$schema" || name == "$defs" || name == "title" || name == "description") {
      return true;
    }
    throw std::logic_error("a rule that this validator does not know: " + name);
  }

  static bool IsA(const Json& type, const Json& value) {
    return (type == "object" && value.is_object()) || (type == "array" && value.is_array()) ||
           (type == "string" && value.is_string()) || (type == "boolean" && value.is_boolean()) ||
           (type == "integer" && value.is_number_integer()) || (type == "null" && value.is_null());
  }

  const Json iRoot;
};
