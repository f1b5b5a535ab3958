// SPDX-License-Identifier: Apache-2.0
#include "ostra/type_info.h"

#include <fmt/format.h>

#include <algorithm>

namespace Ostra {

std::string toText(Value const& value) {
  struct Printer {
    std::string operator()(std::monostate) const { return "nothing"; }
    std::string operator()(bool v) const { return v ? "true" : "false"; }
    std::string operator()(U64 v) const { return fmt::format("{}", v); }
    std::string operator()(double v) const { return fmt::format("{}", v); }
    std::string operator()(std::string const& v) const { return '"' + v + '"'; }
  };
  return std::visit(Printer{}, value);
}

namespace Detail {
void throwWrongType(std::string_view attribute, std::string_view expected, Value const& got) {
  throw AttributeException(fmt::format("{} expects a value of type {}, got {}", attribute, expected, toText(got)));
}
void throwArgumentCount(std::string_view operation, std::size_t expected, std::size_t got) {
  throw AttributeException(fmt::format("{} takes {} arguments, got {}", operation, expected, got));
}
}  // namespace Detail

std::vector<Attribute const*> TypeInfo::attributes() const {
  std::vector<Attribute const*> all;
  if (base_) all = base_->attributes();
  for (Attribute const& a : own_) all.push_back(&a);
  return all;
}

Attribute const* TypeInfo::find(std::string_view name) const {
  auto const a = std::ranges::find(own_, name, &Attribute::name);
  if (a != own_.end()) return &*a;
  return base_ ? base_->find(name) : nullptr;
}

Attribute const& TypeInfo::at(std::string_view name) const {
  if (Attribute const* a = find(name)) return *a;
  std::string known;
  for (Attribute const* a : attributes()) known += (known.empty() ? "" : ", ") + a->name;
  throw AttributeException(fmt::format("{} has no attribute \"{}\"; it has: {}", name_, name, known));
}

Value TypeInfo::read(PtrInterface const& object, std::string_view name) const {
  Attribute const& a = at(name);
  if (!a.read) throw AttributeException(fmt::format("{} of {} is not a scalar attribute", name, name_));
  return a.read(object);
}

void TypeInfo::write(PtrInterface& object, std::string_view name, Value const& value) const {
  Attribute const& a = at(name);
  if (!a.write) throw AttributeException(fmt::format("{} of {} cannot be written", name, name_));
  if (a.refusal)
    if (std::string const why = a.refusal(object); !why.empty())
      throw AttributeException(fmt::format("{} of {} cannot be written: {}", name, name_, why));
  a.write(object, value);
}

Members TypeInfo::members(PtrInterface const& object, std::string_view name) const {
  Attribute const& a = at(name);
  if (!a.members) throw AttributeException(fmt::format("{} of {} is not a collection", name, name_));
  return a.members(object);
}

void TypeInfo::invoke(PtrInterface& object, std::string_view name, std::vector<Value> const& arguments) const {
  Attribute const& a = at(name);
  if (!a.invoke) throw AttributeException(fmt::format("{} of {} cannot be invoked", name, name_));
  a.invoke(object, arguments);
}

}  // namespace Ostra
