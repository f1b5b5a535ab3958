// SPDX-License-Identifier: Apache-2.0
// Mounter: objects of an agent, mounted in this process. A mounted object is of the same type, holds the
// same values, and its watchers fire here as the agent's change.
//
//   Ostra::Mounter agent(dir + "/mgmt.sock");
//   auto flushStatus = agent.mount<Vantrel::VantrelFlushStatus>();  // the agent's only one of that type
//   auto config = agent.mount<Vantrel::DebugConfig>();
//   auto status = agent.mount<Vantrel::DebugStatus>();
//   agent.dispatchUntil([&] { return agent.live(*config) && agent.live(*status); }, 5.0);
//
//   auto asked = agent.invoke(*config, "versionInc", {U64{1}});  // for a snapshot; the result is its version
//   agent.dispatchUntil([&] {
//     if (!agent.live(*config) || !agent.live(*status)) return false;
//     if (asked->lost) asked = agent.invoke(*config, "versionInc", {U64{1}});  // of the agent that came next
//     return asked->result && status->answers(std::get<U64>(*asked->result));
//   }, 30.0);
//
//   loop.onReadable(agent.fd(), [&] { agent.dispatch(); });  // or, in an event loop
//
// Invariants: what its type wants told last (the version of DebugStatus) arrives behind everything that was
//   written before it; other scalars may overtake members. While the agent is away the objects keep their
//   values; when it is back they are compared with a fresh snapshot, and watchers hear what differs. What is
//   set here is not sent: the agent's next word replaces it. To change something at the agent, invoke.
// Ownership: holds a reference to each mounted object. Must not be destroyed from inside a notification.
// Threading: the thread that calls dispatch(). A handler may mount.
// Cost: one dispatch() reads at most 64 KB.
// Errors: the constructor throws std::runtime_error for a path that cannot be a socket's. An agent that is
//   away, refuses or sends nonsense is told by connected() and problem(); the connection is tried again until
//   there is one. What a watcher throws leaves dispatch(), and fd() is readable: the next dispatch() goes on
//   behind the change that it threw at. invoke() throws std::invalid_argument for what is not mounted.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ostra/ptr.h"
#include "ostra/value.h"

namespace Ostra {

// An operation that was invoked at the agent.
struct Invocation {
  std::optional<Value> result;  // once it was carried out; an empty Value: the operation returns none
  std::string refusal;          // why it was not
  bool lost = false;            // not sent, as the object was not live; or the agent's object is gone since
};

class Entity;
class TypeInfo;

class VANTREL_API Mounter {
 public:
  explicit Mounter(std::string path, double retrySeconds = 0.2);
  Mounter(Mounter const&) = delete;
  Mounter& operator=(Mounter const&) = delete;
  ~Mounter();

  // An object whose scalars and collections are those of the agent's entity, of the same type; without a
  // name, of its only entity of that type.
  template <class T>
  Ptr<T> mount(std::string entity = {}) {
    Ptr<T> const object = make<T>(entity.empty() ? nameOf(T::staticType()) : entity);
    mount(object, std::move(entity));
    return object;
  }
  void mount(Ptr<Entity> object, std::string entity);
  // Invokes an operation of the agent's object. dispatch() receives the answer.
  std::shared_ptr<Invocation const> invoke(Entity const& object, std::string_view operation,
                                           std::vector<Value> const& arguments = {});

  // Readable when dispatch() has something to do.
  int fd() const;
  void dispatch();
  // Waits and dispatches until `done` returns true; returns false when `seconds` passed first.
  bool dispatchUntil(std::function<bool()> const& done, double seconds);

  bool connected() const;
  // Connected, and the object holds a complete snapshot and every change since.
  bool live(Entity const& object) const;
  // What went wrong last: why there is no connection, or what the agent refused. Empty: nothing.
  std::string const& problem() const;

 private:
  static std::string const& nameOf(TypeInfo const& type);

  class Connection;
  std::unique_ptr<Connection> const agent_;
};

}  // namespace Ostra
