// SPDX-License-Identifier: Apache-2.0
#include "apps/vantreld/agent.h"

#include <fmt/format.h>

#include <csignal>
#include <cstdio>

#include "apps/vantreld/validator.h"
#include "lumelog/lumelog.h"

namespace Vantreld {
namespace {

constexpr U32 traceId = 1;  // heads every trace record of the one engine

template <class... Args>
void say(std::FILE* to, fmt::format_string<Args...> format, Args&&... args) {
  fmt::print(to, "vantreld: {}\n", fmt::format(format, std::forward<Args>(args)...));
  std::fflush(to);
}

// The status table's writer lock is what makes the agent the only one on its directory.
Ostra::Ptr<Shoal::WriterTable<Vantrel::EntryStatus>> ownStatus(std::string const& dir) {
  try {
    return Ostra::make<Shoal::WriterTable<Vantrel::EntryStatus>>(dir + "/status.shoal",
                                                                 Shoal::WriterOptions{.replace = true});
  } catch (Shoal::WriterLockedException const& e) {
    throw std::runtime_error(fmt::format("another agent serves {}: process {}", dir, e.holder()));
  }
}

}  // namespace

// A file descriptor on the loop; the descriptor stays its owner's.
class Agent::Watched {
 public:
  Watched(boost::asio::io_context& loop, int fd, std::function<void()> dispatch)
      : descriptor_(loop, fd), dispatch_(std::move(dispatch)) {
    await();
  }
  ~Watched() { descriptor_.release(); }
  Watched(Watched const&) = delete;
  Watched& operator=(Watched const&) = delete;

 private:
  // After the dispatch, whatever it throws: no system call stands before an acknowledgement.
  struct AwaitedAgain {
    Watched& watched;
    ~AwaitedAgain() { watched.await(); }
  };
  void await() {
    descriptor_.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                           [this](boost::system::error_code error) {
                             if (error) return;
                             AwaitedAgain const after{*this};
                             dispatch_();
                           });
  }
  boost::asio::posix::stream_descriptor descriptor_;
  std::function<void()> const dispatch_;
};

Agent::Agent(Options options)
    : options_(std::move(options)),
      signals_(loop_, SIGTERM, SIGINT),
      status_(ownStatus(options_.dir)),
      debugConfig_(Vantrel::debugConfigFactory("debugConfig")),
      debugStatus_(Vantrel::debugStatusFactory("debugStatus")),
      flushStatus_(Ostra::make<Vantrel::VantrelFlushStatus>("flushStatus")),
      wheel_(Ostra::make<Keel::TimerfdWheel>()) {
  Lumelog::directoryIs(options_.dir);
  makeHardware();
  publish();
  whenReadable(wheel_->fd(), [this] { wheel_->dispatch(); });
  signals_.async_wait([this](boost::system::error_code error, int) {
    if (!error) loop_.stop();
  });
  awaitConfig();
  sayReady();
}

Agent::~Agent() = default;

void Agent::makeHardware() {
  if (options_.hardware == HardwareKind::Null) {
    hardware_ = Ostra::make<Vantrel::VantrelHelper>("hardware", status_);
    return;
  }
  auto const sim = Ostra::make<Hw::SimulatedTcam>("hardware", status_, options_.size);
  sim->latencyIs(options_.hardwareLatencyUs);
  sim->violationHandlerIs([](Hw::Violation const& v) { say(stderr, "VIOLATION: {}", v.what()); });
  sim_ = sim.get();
  hardware_ = sim;
}

void Agent::publish() {
  publisher_ = std::make_unique<Ostra::Publisher>(options_.dir + "/mgmt.sock");
  publisher_->exportObject("flushStatus", flushStatus_);
  publisher_->exportObject("debugConfig", debugConfig_);
  publisher_->exportObject("debugStatus", debugStatus_);
  publisher_->exportObject("hardware", hardware_);
  publisher_->exportObject("statusTable",
                           Ostra::make<TableReport>(status_, [this] { return status_->size(); }));
  publisher_->exportObject("trace", Ostra::make<TraceControl>());
  whenReadable(publisher_->fd(), [this] { publisher_->dispatch(); });
}

void Agent::whenReadable(int fd, std::function<void()> dispatch) {
  watched_.push_back(std::make_unique<Watched>(loop_, fd, std::move(dispatch)));
}

// The engine exists from the start; the front end, which counts tables, from the moment on at which there is one.
void Agent::awaitConfig() {
  config_ = Ostra::make<Config>(options_.dir + "/config.shoal", Config::Presence::awaited);
  makeEngine();
  config_->validatorIs([this](Vantrel::EntryKey const&, Vantrel::EntryConfig& r, char const* damage) {
    if (damage) throw Pallo::CorruptionDetectedException(damage);
    if (auto const why = fault(r, options_, *engine_)) throw Pallo::CorruptionDetectedException(*why);
  });
  publisher_->exportObject("engine", engine_);
  publisher_->exportObject("configTable",
                           Ostra::make<TableReport>(config_, [this] { return config_->size(); }));
  whenReadable(config_->fd(), [this] {
    config_->dispatch();
    if (!frontEnd_ && config_->mounted()) attach();
  });
  if (config_->mounted()) attach();
}

void Agent::attach() {
  frontEnd_ =
      Vantrel::vantrelSmFactory(config_, status_, debugConfig_, debugStatus_, engine_, flushStatus_, wheel_);
  publisher_->exportObject("frontEnd", frontEnd_);
  sayDamage();
}

void Agent::makeEngine() {
  if (options_.engine == EngineKind::Atcam)
    engine_ = Ostra::make<Vantrel::FastVantrelAtcamImpl>("engine", config_, debugConfig_, debugStatus_,
                                                         hardware_, traceId, options_.maxPartitions);
  else
    engine_ = Ostra::make<Vantrel::FastVantrelImpl>("engine", config_, debugConfig_, debugStatus_, hardware_,
                                                    traceId);
  if (options_.prioGrpShift) engine_->prioGrpShiftIs(options_.prioGrpShift);
}

int Agent::run() {
  while (!loop_.stopped()) {
    try {
      loop_.run_one();
    } catch (Shoal::FileException const&) {
      throw;  // the configuration table cannot be mounted
    } catch (std::exception const& e) {
      if (config_->mounted() && !frontEnd_) throw;  // the first walk failed: nobody would hear of the table
      say(stderr, "{}", e.what());
    }
    sayDamage();
  }
  withdraw();
  sayWhatWasDone();
  return sim_ && sim_->violations() ? 1 : 0;
}

void Agent::sayReady() const {
  say(stdout, "ready in {}: engine {}, {} {} positions, {}", options_.dir, options_.engineText(),
      options_.size, sim_ ? "simulated" : "imaginary",
      config_ ? fmt::format("{} entries wanted", config_->size())
              : std::string("waiting for a producer's config.shoal"));
}

// Each time it grew: the last of what was found damaged or would have stopped the engine.
void Agent::sayDamage() {
  if (!config_ || config_->corruptions() == damageSaid_) return;
  damageSaid_ = config_->corruptions();
  say(stderr, "{}: damage found, {} in all; the last: {}", config_->path(), damageSaid_,
      config_->lastCorruption());
}

// The front end goes first, then the engine, whose destructor cleans up.
void Agent::withdraw() {
  watched_.clear();
  publisher_.reset();
  frontEnd_ = nullptr;
  engine_ = nullptr;
}

void Agent::sayWhatWasDone() const {
  if (!sim_) {
    say(stdout, "stopped; statuses left: {}", status_->size());
    return;
  }
  say(stdout,
      "stopped: {} adds, {} updates, {} moves, {} deletes, {} deletes to break rings, {} flushes, {} "
      "violations; "
      "entries left: {}, statuses left: {}",
      sim_->adds(), sim_->updates(), sim_->moves(), sim_->deletes(), sim_->deadlockDeletes(), sim_->flushes(),
      sim_->violations(), sim_->entries(), status_->size());
}

}  // namespace Vantreld
