// What a root handle shares with every handle made from it: the lock that guards their state and
// the event-loop thread that drives their transfers through one libcurl multi handle.
//
// Threads: Post and Stop may be called from any thread. libcurl is used by one thread at a time,
// under the libcurl lock (CurlGuard): normally the loop thread, inside a posted command or a
// libcurl callback; a caller may take the lock to hand its data to libcurl itself. The loop
// sleeps in epoll_wait on libcurl's sockets until one of them, libcurl's timer or a posted
// command needs it; after work it first watches them for a few tens of microseconds, yielding,
// since the next call or the reply usually follows that closely.
#pragma once

#include <curl/curl.h>

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace QOR::inet {

class RequestHandle;

class Session {
public:
  // How requests reach the network: InternetOpenW's access type, proxy and bypass list.
  struct Settings {
    std::string agent;
    unsigned long accessType = 0;
    std::string proxy;
    std::string bypass;
  };

  // Holds the libcurl lock for a scope. On a thread other than the loop's, it wakes the loop at
  // the end when libcurl left work for it (reports, finished transfers, timers).
  class CurlGuard {
  public:
    explicit CurlGuard(Session& session);
    ~CurlGuard();
    CurlGuard(const CurlGuard&) = delete;
    CurlGuard& operator=(const CurlGuard&) = delete;

  private:
    Session& session;
    Session* outer;
  };

  // Starts the loop thread; null if libcurl or the thread cannot be set up.
  static std::shared_ptr<Session> Start(Settings settings);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The lock of all handle state in this family. Never held while a status callback runs, and
  // never held while waiting for the libcurl lock.
  std::mutex& Lock() { return lock; }
  const Settings& GetSettings() const { return settings; }
  // Signalled when callbacks of a closing handle have returned. Used with Lock().
  std::condition_variable& CallbacksReturned() { return callbacksReturned; }

  // Runs `command` on the loop thread, under the libcurl lock, after the commands posted before
  // it. Commands posted after the loop has stopped are dropped.
  void Post(std::function<void()> command);
  // The same without waking the loop: the command runs when the loop wakes for anything else
  // (at the latest when it stops). For housekeeping that nothing waits for.
  void PostQuietly(std::function<void()> command);
  // The same, but the command runs within `delay` at the latest: a kernel timer wakes the loop
  // if nothing else does first. Saves a wake-up where one is about to come anyway.
  void PostWithin(std::function<void()> command, std::chrono::microseconds delay);
  // Runs the commands posted so far, stops the loop and joins it. Called on the loop thread
  // itself (from a status callback), it only tells the loop to stop.
  void Stop();
  bool OnLoopThread() const { return std::this_thread::get_id() == loopId.load(std::memory_order_relaxed); }
  // True when this thread holds a libcurl lock, of any session (status callbacks run under it).
  static bool HoldingCurl();

  // The rest needs the libcurl lock.
  // Lets libcurl run what is due now (after an unpause, say).
  void RunDue();
  // Lets libcurl act on its socket (CURL_CSELECT_* bits).
  void Act(curl_socket_t socket, int selectBits);
  // Runs `task` on the loop thread once libcurl has dealt with everything it has received so
  // far (after the running libcurl call and its finished transfers).
  void AfterPerform(std::function<void()> task) { afterPerform.push_back(std::move(task)); }
  // Runs `task` on the loop thread after that, once the libcurl lock is free again: for
  // completions, whose waiter may well want the libcurl lock next.
  void AfterUnlock(std::function<void()> task) { afterUnlock.push_back(std::move(task)); }
  // Adds a transfer to the multi handle; the request stays alive while it runs.
  bool Attach(CURL* easy, std::shared_ptr<RequestHandle> request);
  // Takes a transfer out of the multi handle (its connection is kept for reuse when the
  // transfer had finished, closed otherwise).
  void Detach(CURL* easy);
  // An easy handle to set up, from the spares or new.
  CURL* TakeEasy();
  // An easy handle that is no longer attached, for the next request.
  void GiveBackEasy(CURL* easy);
  // libcurl's close of a socket (CURLOPT_CLOSESOCKETFUNCTION, data = the session): its watch ends
  // before it closes.
  static int CloseSocket(void* session, curl_socket_t socket);
  // A socket libcurl has just been given (CURLOPT_OPENSOCKETFUNCTION).
  void SocketOpened(curl_socket_t socket);
  // libcurl is about to send the easy handle's request on a connection that stands (new or
  // reused, PREREQFUNCTION): the socket it then watches for reading may outlast the transfer.
  void ConnectionReady(CURL* easy);
  // Holds back what is sent on the watched connection with these ports until Uncork, so that
  // a request's head leaves in one packet with the start of its body. Returns the socket, or
  // CURL_SOCKET_BAD when no such connection is watched (nothing is held back then).
  curl_socket_t Cork(int localPort, int peerPort);
  // Sends what Cork held back. Safe after libcurl has closed the socket.
  void Uncork(curl_socket_t socket);

private:
  explicit Session(Settings settings);
  bool Open();
  void Run();
  int Await(epoll_event* events, int capacity, int milliseconds);
  void Wake();
  void ActOnEvents(curl_socket_t socket, uint32_t events);
  void DeliverFinished();
  void RunAfterPerform();
  int WaitMilliseconds();
  void Shutdown();
  // How epoll watches one of libcurl's sockets: through a duplicate of it, registered for
  // `events`. A socket of an idle pooled connection stays registered ("parked") so that the next
  // transfer on it costs no epoll_ctl; an event on it while parked ends the watch.
  struct Watch {
    int duplicate = -1;
    uint32_t events = 0; // registered with epoll
    uint32_t wanted = 0; // what libcurl asked for last; registered before the loop sleeps
    bool established = false; // connected, with a request on it
    bool parked = false;
    bool corked = false;
    int localPort = 0;
    int peerPort = 0; // looked up on the first cork
  };
  using Watchers = std::unordered_map<curl_socket_t, Watch>;
  static int SocketChanged(CURL* easy, curl_socket_t socket, int what, void* user, void* assigned);
  int Watched(curl_socket_t socket, uint32_t events, bool established);
  void Park(Watchers::iterator watched);
  bool WatchesChanged() const;
  void ApplyWatches();
  void StopWatching(Watchers::iterator watched);
  // libcurl's socket -> its watch; under the libcurl lock.
  Watchers watchers;
  static int TimerChanged(CURLM* multi, long milliseconds, void* user);

  Settings settings;
  std::mutex lock;
  std::condition_variable callbacksReturned;
  std::thread loop;
  std::atomic<std::thread::id> loopId; // set by the loop thread itself, first thing
  std::mutex joinLock;
  int epollFd = -1;
  int wakeFd = -1;
  int timerFd = -1;

  std::mutex queueLock; // guards the fields below
  std::vector<std::function<void()>> commands;
  std::atomic<bool> queued{false}; // commands (or the stop) are waiting; read without the lock
  bool stopRequested = false;
  bool stopped = false;
  bool sleeping = false; // the loop is in (or about to enter) a blocking epoll_wait
  std::chrono::steady_clock::time_point timerFdDue = std::chrono::steady_clock::time_point::max();

  std::mutex curlLock; // guards everything below
  CURLM* multi = nullptr;
  std::unordered_map<CURL*, std::shared_ptr<RequestHandle>> attached;
  std::unordered_set<CURL*> readyEasies; // attached, past ConnectionReady
  std::vector<CURL*> spareEasies;
  std::vector<std::function<void()>> afterPerform;
  std::vector<std::function<void()>> afterUnlock;
  int running = 0;
  bool timerSet = false;
  std::chrono::steady_clock::time_point timerDue;
  std::chrono::steady_clock::time_point loopWakesBy; // when the loop's present wait ends
};

} // namespace QOR::inet
