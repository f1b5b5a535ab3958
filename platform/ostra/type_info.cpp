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
  throw AttributeException(
      fmt::format("{} expects a value of type {}, got {}", attribute, expected, toText(got)));
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

Attribute const& TypeInfo::collectionAt(std::string_view name) const {
  Attribute const& a = at(name);
  if (a.kind != AttributeKind::Collection)
    throw AttributeException(fmt::format("{} of {} is not a collection", name, name_));
  return a;
}

Value TypeInfo::read(PtrInterface const& object, std::string_view name) const {
  Attribute const& a = at(name);
  if (!a.read) throw AttributeException(fmt::format("{} of {} is not a scalar attribute", name, name_));
  return a.read(object);
}

void TypeInfo::write(PtrInterface& object, std::string_view name, Value const& value) const {
  Attribute const& a = at(name);
  if (!a.write) throw AttributeException(fmt::format("{} of {} cannot be written", name, name_));
  a.write(object, value);
}

void TypeInfo::checkOutsider(PtrInterface const& object, std::string_view name) const {
  Attribute const& a = at(name);
  std::string const why = a.refusal ? a.refusal(object) : std::string();
  char const* const what = a.kind == AttributeKind::Operation ? "invoked" : "written";
  if (!why.empty())
    throw AttributeException(fmt::format("{} of {} cannot be {}: {}", name, name_, what, why));
}

void TypeInfo::writeFromOutside(PtrInterface& object, std::string_view name, Value const& value) const {
  checkOutsider(object, name);
  write(object, name, value);
}

Members TypeInfo::members(PtrInterface const& object, std::string_view name) const {
  Attribute const& a = collectionAt(name);
  Members all;
  for (MemberCursor cursor; !cursor.done;) a.membersFrom(object, cursor, 4096, all);
  return all;
}

void TypeInfo::membersFrom(PtrInterface const& object, std::string_view name, MemberCursor& cursor,
                           std::size_t atMost, Members& out) const {
  collectionAt(name).membersFrom(object, cursor, atMost, out);
}

std::optional<Value> TypeInfo::member(PtrInterface const& object, std::string_view name,
                                      Value const& key) const {
  return collectionAt(name).member(object, key);
}

void TypeInfo::memberIs(PtrInterface& object, std::string_view name, Value const& key,
                        Value const& value) const {
  Attribute const& a = collectionAt(name);
  if (!a.memberIs) throw AttributeException(fmt::format("{} of {} cannot be written", name, name_));
  a.memberIs(object, key, value);
}

void TypeInfo::memberDel(PtrInterface& object, std::string_view name, Value const& key) const {
  Attribute const& a = collectionAt(name);
  if (!a.memberDel) throw AttributeException(fmt::format("{} of {} cannot be written", name, name_));
  a.memberDel(object, key);
}

Value TypeInfo::invoke(PtrInterface& object, std::string_view name,
                       std::vector<Value> const& arguments) const {
  Attribute const& a = at(name);
  if (!a.invoke) throw AttributeException(fmt::format("{} of {} cannot be invoked", name, name_));
  return a.invoke(object, arguments);
}

}  // namespace Ostra
