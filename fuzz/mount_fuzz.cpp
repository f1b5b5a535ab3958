// SPDX-License-Identifier: Apache-2.0
// Any bytes from an agent, cut anywhere: a Mounter and an Asker end with what they are documented to end
// with, and a mounted object whose watchers throw stays usable.
//
// The first byte chooses. A Mounter's input is cut at each zero byte, where it dispatches; after two of them
// the agent hangs up, and is there again.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <string_view>

#include "ostra/mount.h"
#include "ostra/mount_ask.h"
#include "pallo/socket_file.h"
#include "tests/ostra/sample.h"

namespace {

using OstraTest::Sample;

std::string const& socketPath() {
  static std::string const path = [] {
    char name[] = "/tmp/mount-fuzz-XXXXXX";
    return std::string(::mkdtemp(name)) + "/mgmt.sock";
  }();
  return path;
}

class Agent {
 public:
  void accept() {
    peer_ = Pallo::Descriptor(::accept4(listener_.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  }
  void say(std::string_view bytes) { ::send(peer_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  void hangUp() { peer_.reset(); }

 private:
  Pallo::SocketFile listener_{socketPath()};
  Pallo::Descriptor peer_;
};

struct Thrown {};

// Throws at every fifth change.
class Throws : public Sample::Notifiee {
 public:
  void onLevel() override { heard(); }
  void onTitle() override { heard(); }
  void onOrdered(U32 const&) override { heard(); }
  void onHashed(U64 const&) override { heard(); }

 private:
  void heard() {
    if (++count_ % 5 == 0) throw Thrown();
  }
  int count_ = 0;
};

// What watchers throw leaves dispatch(), and nothing else does.
void dispatch(Ostra::Mounter& mounter) {
  pollfd p{mounter.fd(), POLLIN, 0};
  for (int i = 0; i < 200 && ::poll(&p, 1, 0) > 0; ++i) try {
      mounter.dispatch();
    } catch (Thrown const&) {
      if (::poll(&p, 1, 0) == 0) std::abort();  // what is owed is not forgotten
    }
}

void mount(std::string_view script) {
  Agent agent;
  Ostra::Mounter mounter(socketPath(), 1e-6);
  auto const object = mounter.mount<Sample>("sample");
  auto const byType = mounter.mount<Sample>();
  Throws throws;
  throws.notifierIs(Ostra::Ptr<Sample const>(object));
  agent.accept();
  while (!script.empty()) {
    std::size_t const cut = std::min(script.find('\0'), script.size());
    agent.say(script.substr(0, cut));
    dispatch(mounter);
    script.remove_prefix(std::min(cut + 1, script.size()));
    if (mounter.live(*object)) mounter.invoke(*object, "add", {U64{1}});
    if (!mounter.connected() && mounter.problem().empty()) std::abort();
    if (script.empty() || script.front() != '\0') continue;
    agent.hangUp();
    dispatch(mounter);
    if (!mounter.connected()) continue;  // it has connected again already
    agent.accept();
  }
}

void ask(std::string_view bytes) {
  Agent agent;
  Ostra::Asker asker(socketPath(), 1);
  agent.accept();
  agent.say(bytes);
  agent.hangUp();
  try {
    while (true) asker.ask(R"({"verb":"list"})", [](std::string_view) {});
  } catch (Ostra::AgentGone const&) {
  } catch (std::runtime_error const&) {  // an error line, or nonsense
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(U8 const* bytes, std::size_t n) {
  if (n == 0) return 0;
  std::string_view const rest(reinterpret_cast<char const*>(bytes) + 1, n - 1);
  bytes[0] % 4 == 0 ? ask(rest) : mount(rest);
  return 0;
}
