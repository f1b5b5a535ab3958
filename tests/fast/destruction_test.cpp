// SPDX-License-Identifier: Apache-2.0
// The order of an engine's destruction: the clean-up first, while every member is there; then watchers,
// handle maps, the references in the reverse order of construction, and the name.
#include "ostra/piecewise_map.h"
#include "tests/support/fast_world.h"
#include "tests/support/freed.h"

using namespace TestSupport;

namespace {

std::vector<std::string> gone;

template <class T>
class Leaving : public T {
 public:
  template <class... Args>
  explicit Leaving(std::string what, Args&&... args)
      : T(std::forward<Args>(args)...), what_(std::move(what)) {}
  ~Leaving() override { gone.push_back(what_); }

 private:
  std::string const what_;
};

// Watches without holding what it watches.
template <class NotifieeT>
class Watcher : public NotifieeT {
 public:
  Watcher(Ostra::Notifier& list, std::string what) : what_(std::move(what)) { this->listIs(&list); }

 protected:
  void notifierGone() override { gone.push_back(what_); }

 private:
  std::string const what_;
};
class BaseWatcher : public Watcher<VantrelImpl::Notifiee> {
 public:
  using Watcher::Watcher;
  void onHandleToKey(U64 const&) override { gone.push_back("a handle"); }
  void onKeyToHandle(EntryKey const&) override { gone.push_back("a key"); }
};
using FastWatcher = Watcher<FastVantrelImpl::Notifiee>;

class Hardware : public VantrelHelper {
 public:
  explicit Hardware(FastVantrelImpl*& engine) : VantrelHelper("hardware", nullptr), engine_(engine) {}
  void deleteEntry(EntryConfig const&) override {
    EXPECT_EQ(engine_->keyToHandle().size(), 1U);
    EXPECT_EQ(engine_->handleToKey().size(), 1U);
    EXPECT_EQ(engine_->state()->cstate.size(), 1U);
    gone.push_back("the entry");
  }
  void flush() override { gone.push_back("flush"); }

 private:
  FastVantrelImpl*& engine_;
};

class EngineDestruction : public FastWorld {
 protected:
  // One entry programmed; everything is held by the engine alone.
  template <class Engine, class... More>
  void create(More... more) {
    gone.clear();
    auto const config = make<Leaving<Shoal::LocalTable<EntryConfig>>>("tableConfig");
    own = make<Engine>("a name that is too long to lie in the string itself", config,
                       make<Leaving<DebugConfig>>("debugConfig", "debugConfig"),
                       make<Leaving<DebugStatus>>("debugStatus", "debugStatus"),
                       make<Leaving<Hardware>>("helper", engineThatGoes), 1U, more...);
    engineThatGoes = own.get();
    config->entryQuietlyIs(this->config({.key = 7, .ti = 4}));
    own->handleEntry(EntryKey(7));
    onFree(&*own->keyToHandle().begin(), [] { gone.push_back("keyToHandle"); });
    onFree(&*own->handleToKey().begin(), [] { gone.push_back("handleToKey"); });
    onFree(own->name().data(), [] { gone.push_back("name"); });
  }
  void expectOrder() {
    BaseWatcher const ofBase(own->Ostra::Entity::notifieeList(), "watchers");
    FastWatcher const ofFast(own->notifieeList(), "watchers of the fast engine");
    own = nullptr;
    EXPECT_THAT(gone,
                ElementsAre("the entry", "flush", "watchers of the fast engine", "watchers", "keyToHandle",
                            "handleToKey", "helper", "debugStatus", "debugConfig", "tableConfig", "name"));
  }
  FastVantrelImpl* engineThatGoes = nullptr;
  Ptr<FastVantrelImpl> own;
};

}  // namespace

TEST_F(EngineDestruction, CleansUpAndReleasesInOrder) {
  create<FastVantrelImpl>();
  expectOrder();
}

TEST_F(EngineDestruction, OfTheAlgorithmicVariantIsTheSame) {
  create<FastVantrelAtcamImpl>(1U);
  expectOrder();
}
