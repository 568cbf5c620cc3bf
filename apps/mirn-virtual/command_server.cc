#include "apps/mirn-virtual/command_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace mirn {

namespace {

constexpr size_t kLongestLine = 64 * 1024;
constexpr size_t kMostTold = 64 * 1024;
constexpr int kConnections = 16;

bool isSocket(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

bool someoneListens(const sockaddr_un& address) {
  const OwnedDescriptor probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe.valid()) return false;
  // EAGAIN: someone listens, and has more callers than it answers.
  return ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 || errno == EAGAIN;
}

}  // namespace

CommandServer::CommandServer(Handler handler)
    : handler_(std::move(handler)), standard_output_(std::make_shared<OutputQueue>(STDOUT_FILENO)) {}

CommandServer::~CommandServer() {
  if (!path_.empty()) ::unlink(path_.c_str());
}

void CommandServer::useStandardInput() {
  sources_.push_back({STDIN_FILENO, standard_output_, OwnedDescriptor(), ""});
}

void CommandServer::tell(const std::string& line) {
  if (standard_output_->pendingBytes() < kMostTold) standard_output_->add(line + "\n");
}

bool CommandServer::listenAt(const std::string& path, std::string* detail) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    *detail = "the control path is too long";
    return false;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  if (isSocket(path) && !someoneListens(address)) ::unlink(path.c_str());
  listener_.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const mode_t mask = ::umask(0177);
  const bool bound = listener_.valid() &&
                     ::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                     ::listen(listener_.get(), kConnections) == 0;
  const int error = errno;
  ::umask(mask);
  if (!bound) {
    *detail = path + ": " + std::strerror(error);
    listener_.reset();
    return false;
  }
  path_ = path;
  return true;
}

void CommandServer::addWaits(std::vector<pollfd>* waits) const {
  if (listener_.valid()) waits->push_back({listener_.get(), POLLIN, 0});
  if (standard_output_->pending()) waits->push_back({standard_output_->descriptor(), POLLOUT, 0});
  for (const Source& source : sources_) {
    if (!source.output->pending()) {
      waits->push_back({source.input, POLLIN, 0});
    } else if (source.output != standard_output_) {
      waits->push_back({source.output->descriptor(), POLLOUT, 0});
    }
  }
}

void CommandServer::handle(const std::vector<pollfd>& waits) {
  const auto ready = [&waits](int descriptor, short event) {
    return std::any_of(waits.begin(), waits.end(), [descriptor, event](const pollfd& wait) {
      return wait.fd == descriptor && (wait.events & event) != 0 && wait.revents != 0;
    });
  };
  if (standard_output_->pending()) standard_output_->flush();
  std::vector<Source> kept;
  for (Source& source : sources_) {
    if (serve(&source, ready(source.input, POLLIN))) kept.push_back(std::move(source));
  }
  sources_ = std::move(kept);
  if (listener_.valid() && ready(listener_.get(), POLLIN)) accept();
}

void CommandServer::accept() {
  OwnedDescriptor connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!connection.valid() || sources_.size() > static_cast<size_t>(kConnections)) return;
  const int descriptor = connection.get();
  sources_.push_back({descriptor, std::make_shared<OutputQueue>(descriptor), std::move(connection), ""});
}

bool CommandServer::serve(Source* source, bool readable) {
  source->output->flush();
  answerLines(source);
  return !readable || source->output->pending() || read(source);
}

bool CommandServer::read(Source* source) {
  std::array<char, 4096> bytes{};
  const ssize_t count = ::read(source->input, bytes.data(), bytes.size());
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return true;
  // A background process that may not read its terminal gets EIO: for us the end of the input.
  if (count <= 0) return false;
  source->buffer.append(bytes.data(), static_cast<size_t>(count));
  answerLines(source);
  return source->output->pending() || source->buffer.size() <= kLongestLine;
}

void CommandServer::answerLines(Source* source) {
  while (!source->output->pending()) {
    const size_t end = source->buffer.find('\n');
    if (end == std::string::npos) return;
    const std::string line = source->buffer.substr(0, end);
    source->buffer.erase(0, end + 1);
    if (line.find_first_not_of(" \t\r") != std::string::npos) source->output->add(handler_(line) + "\n");
  }
}

}  // namespace mirn
