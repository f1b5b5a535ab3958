// SPDX-License-Identifier: Apache-2.0
// An entity with every kind of attribute, and its watcher that keeps a diary: what the tests of Ostra share.
#pragma once

#include <fmt/format.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ostra/entity.h"
#include "ostra/piecewise_map.h"
#include "ostra/type_info.h"

namespace OstraTest {

class Sample : public Ostra::Entity {
 public:
  class Notifiee : public Ostra::NotifieeOf<Sample const> {
   public:
    virtual void onLevel() {}
    virtual void onTitle() {}
    virtual void onVersion() {}
    virtual void onOrdered(U32 const&) {}
    virtual void onHashed(U64 const&) {}
  };
  using Ordered = std::map<U32, std::string>;
  using Hashed = Ostra::PiecewiseMap<U64, U64>;

  using Entity::Entity;
  ~Sample() override {
    if (destroyed) *destroyed = true;
  }

  U8 level() const { return level_; }
  void levelIs(U8 v) { scalarIs("level", level_, v, &Notifiee::onLevel); }
  std::string const& title() const { return title_; }
  void titleIs(std::string v) { scalarIs("title", title_, std::move(v), &Notifiee::onTitle); }
  double ratio() const { return ratio_; }
  void ratioIs(double v) { ratio_ = v; }
  bool locked() const { return locked_; }
  void lockedIs(bool v) { locked_ = v; }
  U32 fixed() const { return 7; }
  U32 version() const { return version_; }
  void versionIs(U32 v) { scalarIs("version", version_, v, &Notifiee::onVersion); }

  Ordered const& ordered() const { return ordered_; }
  void orderedIs(U32 k, std::string const& v) { memberIs("ordered", ordered_, k, v, &Notifiee::onOrdered); }
  std::string orderedDel(U32 k) { return memberDel("ordered", ordered_, k, &Notifiee::onOrdered); }
  void orderedDelAll() { membersDelAll("ordered", ordered_, &Notifiee::onOrdered); }
  Hashed const& hashed() const { return hashed_; }
  void hashedIs(U64 k, U64 v) { memberIs("hashed", hashed_, k, v, &Notifiee::onHashed); }
  U64 hashedDel(U64 k) { return memberDel("hashed", hashed_, k, &Notifiee::onHashed); }
  void hashedDelAll() { membersDelAll("hashed", hashed_, &Notifiee::onHashed); }
  std::map<U64, U64> hashedInOrder() const { return {hashed_.begin(), hashed_.end()}; }

  void add(U8 n) { levelIs(static_cast<U8>(level_ + n)); }
  U64 above(U64 n) const { return n + level_; }
  Ordered& reached() { return ordered_; }
  void fail() { throw std::runtime_error("the sample failed"); }

  static Ostra::TypeInfo const& staticType() {
    using S = Sample;
    static Ostra::TypeInfo const type =
        Ostra::TypeInfo::of<S>("OstraTest::Sample")
            .attribute("level", &S::level, &S::levelIs)
            .refusedBecause(+[](S const& s) { return std::string(s.locked() ? "it is locked" : ""); })
            .attribute("title", &S::title, &S::titleIs)
            .attribute("ratio", &S::ratio, &S::ratioIs)
            .attribute("locked", &S::locked, &S::lockedIs)
            .attribute("fixed", &S::fixed)
            .collection("ordered", &S::ordered, &S::orderedIs, &S::orderedDel)
            .collection("hashed", &S::hashed, &S::hashedIs, &S::hashedDel)
            .refusedBecause(+[](S const& s) { return std::string(s.locked() ? "it is locked" : ""); })
            .operation("add", &S::add)
            .operation("above", &S::above)
            .refusedBecause(+[](S const& s) { return std::string(s.locked() ? "it is locked" : ""); })
            .operation("reached", &S::reached)
            .operation("fail", &S::fail)
            .attribute("version", &S::version, &S::versionIs)
            .toldLast();
    return type;
  }
  Ostra::TypeInfo const& typeInfo() const override { return staticType(); }

  bool* destroyed = nullptr;

 private:
  U8 level_ = 0;
  std::string title_;
  double ratio_ = 0;
  bool locked_ = false;
  U32 version_ = 0;
  Ordered ordered_;
  Hashed hashed_;
};

// Writes down what it hears, then does what the test asked for.
class Diary : public Sample::Notifiee {
 public:
  explicit Diary(std::string name = {}, std::vector<std::string>* shared = nullptr)
      : name_(std::move(name)), lines_(shared ? shared : &own_) {}

  void onLevel() override { wrote(fmt::format("level {}", notifier() ? notifier()->level() : 0)); }
  void onTitle() override { wrote("title " + notifier()->title()); }
  void onVersion() override { wrote(fmt::format("version {}", notifier()->version())); }
  void onOrdered(U32 const& k) override { wrote(fmt::format("ordered {}", k)); }
  void onHashed(U64 const& k) override { wrote(fmt::format("hashed {}", k)); }

  std::vector<std::string> const& lines() const { return *lines_; }
  std::vector<std::string> take() { return std::exchange(*lines_, {}); }

  std::function<void()> then;

 private:
  void wrote(std::string const& what) {
    lines_->push_back(name_.empty() ? what : name_ + ": " + what);
    if (auto const act = then) act();
  }
  std::string name_;
  std::vector<std::string> own_;
  std::vector<std::string>* lines_;
};

}  // namespace OstraTest
