#include "apps/common/stop_request.h"

#include <glib-unix.h>
#include <unistd.h>

#include <csignal>
#include <utility>

namespace mirn {
namespace {

constexpr std::array<int, 3> kSignals = {SIGINT, SIGTERM, SIGHUP};

bool isIgnored(int signal) {
  struct sigaction present = {};
  return sigaction(signal, nullptr, &present) == 0 && present.sa_handler == SIG_IGN;
}

}  // namespace

StopRequest::StopRequest(Callback noted) : noted_(std::move(noted)) {
  for (size_t i = 0; i < kSignals.size(); ++i) {
    if (!isIgnored(kSignals[i])) {
      watches_[i] = {this, kSignals[i], 0};
      watches_[i].source = g_unix_signal_add(kSignals[i], &onSignal, &watches_[i]);
    }
  }
}

StopRequest::~StopRequest() {
  for (const Watch& watch : watches_) {
    if (watch.source != 0) {
      g_source_remove(watch.source);
    }
  }
}

int StopRequest::onSignal(void* watch) {
  auto* noted = static_cast<Watch*>(watch);
  StopRequest& request = *noted->owner;
  if (request.signal_ == 0) {
    request.signal_ = noted->signal;
  }
  if (request.noted_) {
    request.noted_(noted->signal);
  }
  return G_SOURCE_CONTINUE;
}

const char* signalName(int signal) {
  switch (signal) {
    case SIGINT:
      return "SIGINT";
    case SIGTERM:
      return "SIGTERM";
    default:
      return "SIGHUP";
  }
}

void endBySignal(int signal) {
  std::signal(signal, SIG_DFL);
  sigset_t wanted;
  sigemptyset(&wanted);
  sigaddset(&wanted, signal);
  pthread_sigmask(SIG_UNBLOCK, &wanted, nullptr);
  raise(signal);
  constexpr int kSignalStatus = 128;
  _exit(kSignalStatus + signal);
}

void ignoreBrokenPipes() {
  std::signal(SIGPIPE, SIG_IGN);
}

}  // namespace mirn
