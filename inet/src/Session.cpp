#include "Session.h"

#include "RequestHandle.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <climits>

namespace QOR::inet {

namespace {

constexpr std::size_t maxSpareEasies = 8;
// How long the loop watches for more work before it sleeps. A caller answers a completion with
// its next call, and a loopback server its request, well within this; a sleep and wake-up costs
// about as much again on a busy machine.
constexpr std::chrono::microseconds loopSpin(50);
// The session whose libcurl lock this thread holds (the innermost, when callbacks nest).
thread_local Session* curlHolder = nullptr;

using Clock = std::chrono::steady_clock;

void InitialiseCurl() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// The local or the peer port of a socket (getsockname or getpeername); 0 if unknown.
int PortOf(int socket, int (*name)(int, sockaddr*, socklen_t*)) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (name(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0) return 0;
  if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
  return 0;
}

uint32_t EpollEvents(int what) {
  uint32_t events = 0;
  if (what == CURL_POLL_IN || what == CURL_POLL_INOUT) events |= EPOLLIN;
  if (what == CURL_POLL_OUT || what == CURL_POLL_INOUT) events |= EPOLLOUT;
  return events;
}

} // namespace

// ---- the libcurl lock ----

Session::CurlGuard::CurlGuard(Session& session) : session(session), outer(curlHolder) {
  session.curlLock.lock();
  curlHolder = &session;
}

Session::CurlGuard::~CurlGuard() {
  bool wake = false;
  if (session.OnLoopThread()) {
    session.ApplyWatches(); // before the loop sleeps again
  } else {
    // Reports queued by libcurl's callbacks, transfers that finished meanwhile, or a timer due
    // before the loop means to wake: the loop's business.
    wake = !session.afterPerform.empty() || !session.afterUnlock.empty() ||
           session.running < static_cast<int>(session.attached.size()) || session.WatchesChanged() ||
           (session.timerSet && session.timerDue < session.loopWakesBy);
  }
  curlHolder = outer;
  session.curlLock.unlock();
  if (wake) session.Wake();
}

bool Session::HoldingCurl() { return curlHolder != nullptr; }

// ---- life ----

Session::Session(Settings settings) : settings(std::move(settings)) {}

bool Session::Open() {
  multi = curl_multi_init();
  epollFd = epoll_create1(EPOLL_CLOEXEC);
  wakeFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  timerFd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  if (!multi || epollFd < 0 || wakeFd < 0 || timerFd < 0) return false;
  for (int fd : {wakeFd, timerFd}) {
    epoll_event wake{};
    wake.events = EPOLLIN;
    wake.data.fd = fd;
    if (epoll_ctl(epollFd, EPOLL_CTL_ADD, fd, &wake) != 0) return false;
  }
  curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, &Session::SocketChanged);
  curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, &Session::TimerChanged);
  curl_multi_setopt(multi, CURLMOPT_TIMERDATA, this);
  return true;
}

std::shared_ptr<Session> Session::Start(Settings settings) {
  InitialiseCurl();
  std::shared_ptr<Session> session(new Session(std::move(settings)));
  if (!session->Open()) return nullptr;
  // The thread owns the session too, so the session outlives every command the loop runs.
  try {
    session->loop = std::thread([session] { session->Run(); });
  } catch (const std::system_error&) {
    return nullptr;
  }
  return session;
}

Session::~Session() {
  // The last owner is the loop thread itself when nothing joined it: it ends right after this.
  if (loop.joinable()) loop.detach();
  if (multi) curl_multi_cleanup(multi);
  for (auto& watched : watchers) close(watched.second.duplicate);
  if (epollFd >= 0) close(epollFd);
  if (wakeFd >= 0) close(wakeFd);
  if (timerFd >= 0) close(timerFd);
}

void Session::Wake() {
  uint64_t one = 1;
  (void)!write(wakeFd, &one, sizeof one);
}

void Session::Post(std::function<void()> command) {
  bool wake = false;
  {
    std::lock_guard<std::mutex> guard(queueLock);
    if (stopped) return;
    commands.push_back(std::move(command));
    queued.store(true, std::memory_order_release);
    // Awake, the loop looks at the queue before it sleeps.
    wake = sleeping;
  }
  if (wake) Wake();
}

void Session::PostQuietly(std::function<void()> command) {
  std::lock_guard<std::mutex> guard(queueLock);
  if (stopped) return;
  commands.push_back(std::move(command));
  queued.store(true, std::memory_order_release);
}

void Session::PostWithin(std::function<void()> command, std::chrono::microseconds delay) {
  std::lock_guard<std::mutex> guard(queueLock);
  if (stopped) return;
  commands.push_back(std::move(command));
  queued.store(true, std::memory_order_release);
  if (!sleeping) return; // the loop runs it before it sleeps
  auto due = Clock::now() + delay;
  if (due >= timerFdDue) return; // an earlier wake-up is set already
  timerFdDue = due;
  itimerspec when{};
  when.it_value.tv_sec = delay.count() / 1000000;
  when.it_value.tv_nsec = (delay.count() % 1000000) * 1000;
  timerfd_settime(timerFd, 0, &when, nullptr);
}

void Session::Stop() {
  {
    std::lock_guard<std::mutex> guard(queueLock);
    stopRequested = true;
    queued.store(true, std::memory_order_release);
  }
  Wake();
  if (OnLoopThread()) return;
  std::lock_guard<std::mutex> guard(joinLock);
  if (loop.joinable()) loop.join();
}

// ---- the loop ----

void Session::Run() {
  loopId.store(std::this_thread::get_id(), std::memory_order_relaxed);
  std::vector<std::function<void()>> batch;
  epoll_event events[64];
  int ready = 0;
  for (;;) {
    {
      std::lock_guard<std::mutex> guard(queueLock);
      batch.swap(commands);
      queued.store(stopRequested, std::memory_order_relaxed);
      if (batch.empty() && stopRequested) {
        stopped = true;
        break;
      }
    }
    int wait = 0;
    std::vector<std::function<void()>> reports;
    {
      CurlGuard guard(*this);
      for (auto& command : batch) command();
      batch.clear();
      for (int i = 0; i < ready; ++i) {
        int fd = events[i].data.fd;
        if (fd != wakeFd && fd != timerFd) ActOnEvents(fd, events[i].events);
      }
      RunDue();
      DeliverFinished();
      RunAfterPerform();
      wait = WaitMilliseconds();
      reports.swap(afterUnlock);
    }
    for (auto& report : reports) report();
    ready = Await(events, 64, wait);
    for (int i = 0; i < ready; ++i) {
      if (events[i].data.fd != wakeFd && events[i].data.fd != timerFd) continue;
      uint64_t count = 0;
      (void)!read(events[i].data.fd, &count, sizeof count);
      if (events[i].data.fd == timerFd) {
        std::lock_guard<std::mutex> guard(queueLock);
        timerFdDue = Clock::time_point::max();
      }
    }
    if (ready < 0) ready = 0;
  }
  CurlGuard guard(*this);
  Shutdown();
}

int Session::Await(epoll_event* events, int capacity, int milliseconds) {
  if (milliseconds != 0) {
    auto deadline = Clock::now() + loopSpin;
    for (;;) {
      if (queued.load(std::memory_order_acquire)) return 0;
      int ready = epoll_wait(epollFd, events, capacity, 0);
      if (ready != 0) return ready;
      if (Clock::now() >= deadline) break;
      std::this_thread::yield();
    }
  }
  {
    std::lock_guard<std::mutex> guard(queueLock);
    if (!commands.empty() || stopRequested) return 0;
    sleeping = true;
  }
  int ready = epoll_wait(epollFd, events, capacity, milliseconds);
  std::lock_guard<std::mutex> guard(queueLock);
  sleeping = false;
  return ready;
}

void Session::ActOnEvents(curl_socket_t socket, uint32_t events) {
  // An idle pooled connection that turns readable was closed by the server or is out of step:
  // libcurl finds that out when it next looks at it. Watching it on would wake the loop again and
  // again.
  auto watched = watchers.find(socket);
  if (watched != watchers.end() && watched->second.parked) {
    StopWatching(watched);
    return;
  }
  int bits = 0;
  if (events & EPOLLIN) bits |= CURL_CSELECT_IN;
  if (events & EPOLLOUT) bits |= CURL_CSELECT_OUT;
  if (events & (EPOLLERR | EPOLLHUP)) bits |= CURL_CSELECT_ERR;
  Act(socket, bits);
}

void Session::Act(curl_socket_t socket, int selectBits) {
  curl_multi_socket_action(multi, socket, selectBits, &running);
}

void Session::RunDue() {
  // libcurl may set a new due time while it runs; what is due again now runs again.
  while (timerSet && timerDue <= Clock::now()) {
    timerSet = false;
    curl_multi_socket_action(multi, CURL_SOCKET_TIMEOUT, 0, &running);
  }
}

int Session::WaitMilliseconds() {
  // No time-out of our own: without a libcurl timer the loop waits for a socket or a command.
  if (!timerSet) {
    loopWakesBy = Clock::time_point::max();
    return -1;
  }
  auto left = std::chrono::ceil<std::chrono::milliseconds>(timerDue - Clock::now()).count();
  left = std::max<long long>(0, std::min<long long>(left, INT_MAX));
  loopWakesBy = timerDue;
  return static_cast<int>(left);
}

void Session::DeliverFinished() {
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    auto found = attached.find(message->easy_handle);
    if (found == attached.end()) continue;
    std::shared_ptr<RequestHandle> request = found->second;
    request->TransferDone(message->data.result);
  }
}

void Session::RunAfterPerform() {
  while (!afterPerform.empty()) {
    auto tasks = std::move(afterPerform);
    afterPerform.clear();
    for (auto& task : tasks) task();
  }
}

void Session::Shutdown() {
  std::vector<std::shared_ptr<RequestHandle>> remaining;
  for (auto& entry : attached) remaining.push_back(entry.second);
  for (auto& request : remaining) request->DropTransfer(); // each detaches itself
  attached.clear();
  for (CURL* easy : spareEasies) curl_easy_cleanup(easy);
  spareEasies.clear();
}

// ---- libcurl's sockets and timer ----

// epoll watches a private duplicate of each libcurl socket, never libcurl's own number: libcurl
// closes a socket that is still connecting without the close hook and reports its removal
// afterwards, when another thread may already have been given the same number.
int Session::SocketChanged(CURL* easy, curl_socket_t socket, int what, void* user, void*) {
  auto* self = static_cast<Session*>(user);
  // Read from after the request went out: the connection stands (a socket still connecting is
  // only ever watched for writing).
  if (what != CURL_POLL_REMOVE) {
    bool established = (what & CURL_POLL_IN) && self->readyEasies.count(easy);
    return self->Watched(socket, EpollEvents(what), established);
  }
  auto watched = self->watchers.find(socket);
  if (watched != self->watchers.end()) self->Park(watched);
  return 0;
}

int Session::Watched(curl_socket_t socket, uint32_t events, bool established) {
  epoll_event event{};
  event.events = events;
  event.data.fd = socket;
  auto watched = watchers.find(socket);
  if (watched != watchers.end()) {
    // Applied when the loop next sleeps: libcurl often takes a change back within the same
    // turn, and a socket made writable here would wake the loop at once, only for it to wait
    // for the libcurl lock that this thread holds.
    Watch& watch = watched->second;
    watch.parked = false;
    watch.wanted = events;
    watch.established |= established;
    return 0;
  }
  Watch watch;
  watch.events = watch.wanted = events;
  watch.established = established;
  watch.duplicate = fcntl(socket, F_DUPFD_CLOEXEC, 0); // libcurl's socket is open in this call
  if (watch.duplicate < 0) return -1;
  watch.localPort = PortOf(watch.duplicate, &getsockname);
  if (epoll_ctl(epollFd, EPOLL_CTL_ADD, watch.duplicate, &event) != 0) {
    close(watch.duplicate);
    return -1;
  }
  watchers.emplace(socket, watch);
  return 0;
}

bool Session::WatchesChanged() const {
  for (const auto& watched : watchers) {
    if (watched.second.wanted != watched.second.events) return true;
  }
  return false;
}

void Session::ApplyWatches() {
  for (auto& watched : watchers) {
    Watch& watch = watched.second;
    if (watch.wanted == watch.events) continue;
    epoll_event event{};
    event.events = watch.wanted;
    event.data.fd = watched.first;
    epoll_ctl(epollFd, EPOLL_CTL_MOD, watch.duplicate, &event);
    watch.events = watch.wanted;
  }
}

void Session::Park(Watchers::iterator watched) {
  // Only the socket of an established connection, which libcurl closes through the hook: any
  // other may be closed already, its number perhaps another thread's file by now, and the
  // duplicate would keep it open.
  if (!watched->second.established) {
    StopWatching(watched);
    return;
  }
  watched->second.parked = true;
}

void Session::ConnectionReady(CURL* easy) { readyEasies.insert(easy); }

// Through the duplicate, which is ours: libcurl's number may belong to another file by the time
// of an uncork.
curl_socket_t Session::Cork(int localPort, int peerPort) {
  if (localPort <= 0) return CURL_SOCKET_BAD;
  for (auto& watched : watchers) {
    Watch& watch = watched.second;
    if (watch.localPort != localPort) continue;
    // Connections to two servers may share a local port. The peer is known once connected.
    if (watch.peerPort == 0) watch.peerPort = PortOf(watch.duplicate, &getpeername);
    if (watch.peerPort != peerPort) continue;
    int on = 1;
    if (setsockopt(watch.duplicate, IPPROTO_TCP, TCP_CORK, &on, sizeof on) != 0) return CURL_SOCKET_BAD;
    watch.corked = true;
    return watched.first;
  }
  return CURL_SOCKET_BAD;
}

void Session::Uncork(curl_socket_t socket) {
  auto watched = watchers.find(socket);
  if (watched == watchers.end() || !watched->second.corked) return;
  int off = 0;
  setsockopt(watched->second.duplicate, IPPROTO_TCP, TCP_CORK, &off, sizeof off);
  watched->second.corked = false;
}

void Session::StopWatching(Watchers::iterator watched) {
  Uncork(watched->first);
  epoll_ctl(epollFd, EPOLL_CTL_DEL, watched->second.duplicate, nullptr);
  close(watched->second.duplicate);
  watchers.erase(watched);
}

void Session::SocketOpened(curl_socket_t socket) {
  // A new socket with a watched number means the old one was closed unreported.
  auto stale = watchers.find(socket);
  if (stale != watchers.end()) StopWatching(stale);
}

int Session::CloseSocket(void* user, curl_socket_t socket) {
  auto* self = static_cast<Session*>(user);
  auto watched = self->watchers.find(socket);
  if (watched != self->watchers.end()) self->StopWatching(watched);
  return close(socket);
}

int Session::TimerChanged(CURLM*, long milliseconds, void* user) {
  auto* self = static_cast<Session*>(user);
  if (milliseconds < 0) {
    self->timerSet = false;
    return 0;
  }
  // Set by a caller driving libcurl, it is looked at when the caller lets go (CurlGuard).
  self->timerSet = true;
  self->timerDue = Clock::now() + std::chrono::milliseconds(milliseconds);
  return 0;
}

// ---- transfers ----

bool Session::Attach(CURL* easy, std::shared_ptr<RequestHandle> request) {
  if (curl_multi_add_handle(multi, easy) != CURLM_OK) return false;
  attached.emplace(easy, std::move(request));
  return true;
}

void Session::Detach(CURL* easy) {
  auto found = attached.find(easy);
  if (found == attached.end()) return;
  curl_multi_remove_handle(multi, easy);
  readyEasies.erase(easy);
  // The request may hold the last other reference: let it go only after the map is consistent.
  std::shared_ptr<RequestHandle> keep = std::move(found->second);
  attached.erase(found);
}

CURL* Session::TakeEasy() {
  if (spareEasies.empty()) return curl_easy_init();
  CURL* easy = spareEasies.back();
  spareEasies.pop_back();
  return easy;
}

void Session::GiveBackEasy(CURL* easy) {
  if (!easy) return;
  if (curlHolder != this || spareEasies.size() >= maxSpareEasies) {
    curl_easy_cleanup(easy);
    return;
  }
  curl_easy_reset(easy);
  spareEasies.push_back(easy);
}

} // namespace QOR::inet
