// SPDX-License-Identifier: Apache-2.0
// One exported object and its log of changes, from which any number of watchers are told, each at its own
// pace.
//
//   log:    | 17 k4 | 18 k9 | 19 k4 | 20 version |          a change is the name of what changed, never its
//   value
//                     ^ Cursor A            ^ Cursor B      and k4 at 17 is passed over: 19 tells it
//
// A cursor walks the collections (the snapshot), then follows the log from where it stood when the walk
// began, and reads each value when it is told: the newest value once. Scalars are told when the cursor has
// told everything else, so a version that is written last is told last. A cursor that the log left behind
// begins again with a fresh snapshot.
//
// Invariants: the log holds at most `longestLog` changes; the object is watched only while a cursor follows.
// Ownership: holds a reference to the object; cursors belong to the peers and leave before they go.
// Threading: the agent's event loop.
// Cost: a change costs one hash-map step however many watch; a change that nobody follows costs what an
//   unwatched entity's does. One call of produce() makes about `upTo` bytes.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "ostra/entity.h"

namespace Ostra {

class Export final : private AttributeWatcher {
 public:
  // One watcher's place.
  struct Cursor {
    enum class Stage { Begin, Walk, Follow };
    Stage stage = Stage::Begin;
    std::size_t attribute = 0;     // Walk: which one
    MemberCursor member;           // Walk: where in it
    U64 position = 0;              // the next change to tell
    std::vector<std::size_t> due;  // scalars to tell when everything else is told, last changed last
    bool live = false;             // was told that its snapshot is complete
  };

  // `wake` is called when there is something new to tell.
  Export(std::string name, Ptr<Described> object, std::function<void()> wake);

  std::string const& name() const { return name_; }
  Ptr<Described> const& object() const { return object_; }
  // Tells its changes, so that it can be mounted.
  bool watchable() const { return entity_ != nullptr; }

  // Appends lines until `out` holds about `upTo` bytes or nothing is left to tell; true when something is
  // left.
  bool produce(Cursor& cursor, std::string& out, std::size_t upTo);
  bool hasNews(Cursor const& cursor) const;
  void leave(Cursor& cursor);

 private:
  struct Change {
    std::size_t attribute;
    Value key;  // nothing: a scalar
    bool operator==(Change const&) const = default;
  };
  struct ChangeHash {
    std::size_t operator()(Change const& c) const { return std::hash<Value>()(c.key) * 31 + c.attribute; }
  };

  void onAttribute(std::string_view name) override { changed(name, Value()); }
  void onMember(std::string_view name, Value const& key) override { changed(name, key); }
  void changed(std::string_view name, Value const& key);
  void makeRoom();
  void trim();

  void begin(Cursor& cursor, std::string& out);
  void walk(Cursor& cursor, std::string& out, std::size_t upTo);
  void slice(Cursor& cursor, Members& members);
  void follow(Cursor& cursor, std::string& out, std::size_t upTo);
  void tellScalars(Cursor& cursor, std::string& out);
  void tellRun(Cursor& cursor, std::string& out);
  void event(std::string& out, std::string_view event, std::size_t attribute) const;
  void tellMembers(std::string& out, std::size_t attribute, Members const& members) const;
  void tellGone(std::string& out, std::size_t attribute, std::vector<Value> const& keys) const;
  U64 head() const { return base_ + log_.size(); }

  std::string const name_;
  Ptr<Described> const object_;
  Entity const* const entity_;
  std::function<void()> const wake_;
  std::vector<Attribute const*> const attributes_;
  std::vector<std::string> openings_;  // of an event's line, from the entity's name on, one an attribute
  std::string quotedName_;

  std::vector<Cursor*> followers_;  // cursors beyond Begin
  std::deque<Change> log_;
  U64 base_ = 0;                                        // the number of log_'s first change
  U64 consumed_ = 0;                                    // no cursor is beyond this
  std::unordered_map<Change, U64, ChangeHash> latest_;  // each change's last number
  U64 changes_ = 0;                                     // all there were while a cursor followed, told or not

  // The keys that a walk had to copy serve every walk that begins before the next change.
  struct SharedKeys {
    std::weak_ptr<void const> keys;
    U64 changes = 0;
  };
  std::vector<SharedKeys> sharedKeys_;  // one an attribute
};

}  // namespace Ostra
