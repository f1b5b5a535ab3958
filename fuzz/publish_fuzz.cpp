// SPDX-License-Identifier: Apache-2.0
// Any bytes from up to four peers of the management socket, cut anywhere, while the agent's objects change:
// every line that comes back is one of the protocol's, and the publisher comes to rest and forgets the peers.
//
// The input is a script. The lower three bits of a byte say what is done, the next two by which peer.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ostra/publish.h"
#include "ostra/publish_wire.h"
#include "pallo/unix_socket.h"
#include "tests/ostra/sample.h"

namespace {

using OstraTest::Sample;

constexpr U64 few = 20, many = 300;  // members; a line holds 256
constexpr std::string_view requests[] = {
    R"({"verb":"list","tag":1})",
    R"({"verb":"list","entity":"sample"})",
    R"({"verb":"mount","type":"OstraTest::Sample","tag":"t"})",
    R"({"verb":"unmount","entity":"sample"})",
    R"({"verb":"read","entity":"sample"})",
    R"({"verb":"read","entity":"sample","attribute":"hashed","tag":-2})",
    R"({"verb":"read","entity":"sample","attribute":"ordered"})",
    R"({"verb":"read","entity":"sample","attribute":"ordered","key":3})",
    R"({"verb":"write","entity":"sample","attribute":"level","value":7})",
    R"({"verb":"write","entity":"sample","attribute":"hashed","key":4,"value":5})",
    R"({"verb":"delete","entity":"sample","attribute":"hashed","key":4})",
    R"({"verb":"invoke","entity":"sample","operation":"add","arguments":[1]})",
    R"({"verb":"invoke","entity":"sample","operation":"fail"})"};

std::string const& socketPath() {
  static std::string const path = [] {
    char name[] = "/tmp/publish-fuzz-XXXXXX";
    return std::string(::mkdtemp(name)) + "/mgmt.sock";
  }();
  return path;
}

// Serves the socket in the middle of a change, as an agent does in a long walk.
class ServesMeanwhile : public Sample::Notifiee {
 public:
  explicit ServesMeanwhile(Ostra::Publisher& publisher) : publisher_(publisher) {}
  void onLevel() override { publisher_.dispatch(); }
  void onHashed(U64 const& key) override {
    if (key % 32 == 0) publisher_.dispatchReadOnly();
  }

 private:
  Ostra::Publisher& publisher_;
};

class World {
 public:
  World() : meanwhile_(publisher_) {
    for (U64 k = 0; k < few; ++k) sample_->hashedIs(k, k);
    meanwhile_.notifierIs(Ostra::Ptr<Sample const>(sample_));
    publisher_.exportObject("sample", sample_);
  }
  // Ends when all have read everything and are gone.
  ~World() {
    meanwhile_.notifierIs(nullptr);
    for (auto& peer : peers_)
      while (peer && rests() && read(*peer)) {
      }
    for (auto& peer : peers_) peer.reset();
    rests();
    if (publisher_.peers() != 0 || !sample_->attributeWatchers().empty()) std::abort();
  }

  void run(std::string_view script) {
    while (!script.empty()) step(script);
  }

 private:
  void step(std::string_view& script) {
    auto const byte = static_cast<unsigned char>(script.front());
    script.remove_prefix(1);
    auto& peer = peers_[byte >> 3 & 3];
    switch (byte & 7) {
      case 0:
      case 1:
        return send(peer, take(script, byte >> 1));
      case 2:
        return send(peer, std::string(requests[(byte >> 3) % std::size(requests)]) + '\n');
      case 3:
        return peer.reset();
      case 4:
        return publisher_.dispatch();
      case 5:
        return publisher_.dispatchReadOnly();
      case 6:
        if (peer) read(*peer);
        return;
      default:
        return change(byte >> 3);
    }
  }
  static std::string take(std::string_view& script, std::size_t n) {
    std::string const bytes(script.substr(0, n));
    script.remove_prefix(bytes.size());
    return bytes;
  }
  void send(std::optional<Pallo::LineSocket>& peer, std::string const& bytes) {
    if (!peer) peer.emplace(Pallo::connectTo(socketPath()), 1 << 20);
    peer->out() += bytes;
    peer->send();
  }
  // False at the end of what there is.
  static bool read(Pallo::LineSocket& peer) {
    peer.receive();
    bool any = false;
    while (auto const line = peer.line()) {
      Ostra::Wire::Message const message = Ostra::Wire::parse(*line);
      if (message.answer.given() + message.event.given() + message.error.given() != 1) std::abort();
      any = true;
    }
    return any;
  }
  void change(unsigned what) {
    switch (what % 4) {
      case 0:
        return sample_->titleIs(std::string(what, 'x'));
      case 1:
        for (U64 k = what % 8; k < (what < 24 ? few : many); k += 1 + what % 3)
          sample_->hashedIs(k, k * what);
        return;
      case 2:
        for (U64 k = what; k < many; k += 3) sample_->hashedDel(k);
        return;
      default:
        return publisher_.exportObject("sample", sample_);
    }
  }
  bool rests() {
    pollfd p{publisher_.fd(), POLLIN, 0};
    for (int i = 0; ::poll(&p, 1, 0) > 0; ++i) {
      publisher_.dispatch();
      if (i == 10000) std::abort();
    }
    return true;
  }

  Ostra::Ptr<Sample> const sample_ = Ostra::make<Sample>("sample");
  Ostra::Publisher publisher_{socketPath()};
  ServesMeanwhile meanwhile_;
  std::optional<Pallo::LineSocket> peers_[4];
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t n) {
  World().run({reinterpret_cast<char const*>(bytes), n});
  return 0;
}
