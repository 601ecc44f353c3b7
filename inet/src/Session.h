// What a root handle shares with every handle made from it: the lock that guards their state and
// the event-loop thread that drives their transfers through one libcurl multi handle.
//
// Threads: Post and Stop may be called from any thread. Everything that touches libcurl runs on
// the loop thread, inside a posted command or a libcurl callback. The loop sleeps in
// curl_multi_poll until a socket, a libcurl timer or a posted command needs it.
#pragma once

#include <curl/curl.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
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

  // Starts the loop thread; null if libcurl or the thread cannot be set up.
  static std::shared_ptr<Session> Start(Settings settings);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The lock of all handle state in this family. Never held while a status callback runs.
  std::mutex& Lock() { return lock; }
  const Settings& GetSettings() const { return settings; }

  // Runs `command` on the loop thread after the commands posted before it. Commands posted
  // after the loop has stopped are dropped.
  void Post(std::function<void()> command);
  // Runs the commands posted so far, stops the loop and joins it. Called on the loop thread
  // itself (from a status callback), it only tells the loop to stop.
  void Stop();
  bool OnLoopThread() const { return std::this_thread::get_id() == loopId; }

  // Loop thread only: runs `task` once libcurl has dealt with everything it has received so far
  // (after the running curl_multi_perform and its finished transfers).
  void AfterPerform(std::function<void()> task) { afterPerform.push_back(std::move(task)); }
  // Loop thread only: adds a transfer to the multi handle; the request stays alive while it runs.
  bool Attach(CURL* easy, std::shared_ptr<RequestHandle> request);
  // Loop thread only: takes a transfer out of the multi handle (its connection is kept for
  // reuse when the transfer had finished, closed otherwise).
  void Detach(CURL* easy);
  // Loop thread only: an easy handle to set up, from the spares or new.
  CURL* TakeEasy();
  // Loop thread only: an easy handle that is no longer attached, for the next request.
  void GiveBackEasy(CURL* easy);

private:
  explicit Session(Settings settings);
  void Run();
  void DeliverFinished();
  void Shutdown();

  Settings settings;
  std::mutex lock;
  CURLM* multi = nullptr;
  std::thread loop;
  std::thread::id loopId;
  std::mutex joinLock;

  std::mutex queueLock; // guards the three fields below
  std::vector<std::function<void()>> commands;
  bool stopRequested = false;
  bool stopped = false;

  // Loop thread only.
  std::unordered_map<CURL*, std::shared_ptr<RequestHandle>> attached;
  std::vector<CURL*> spareEasies;
  std::vector<std::function<void()>> afterPerform;
};

} // namespace QOR::inet
