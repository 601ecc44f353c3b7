// Runs SimpleSoap queries one after another on a worker thread and one HttpClient, and judges the
// status tags of each reply.
//
// Any host thread may call AddBlockingSoap: it queues the query and blocks until the worker has
// run it and judged the reply. Queries run first in, first out, each to its end before the next,
// so queries from many threads never overlap on the client. The reply document must hold, as
// direct nested tags of its top tag, "Success" (a number above 0 is the service's error number)
// and optionally "ErrorPrefix" (a text whose presence alone fails the query).
//
// Stopping: StopRunning and the destructor wait for the query being run, which they don't cancel
// (CancelCallbackRequest first shortens that wait). Queries still queued behind it are not run:
// their callers wake at once with the error "SoapQueue stopped before the query was run". A query
// queued while the queue is not running waits for the next StartRunning, which finds only those.
//
// One process-wide lock, "SoapQueue :: queueSection", guards the queues of all SoapQueue objects
// for a few steps at a time; it is never held while a query runs or a caller waits.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/CountingSemaphore.h>
#include <qorxmlu/foundation/ErrorInfo.h>
#include <qorxmlu/foundation/Event.h>
#include <qorxmlu/foundation/SVArray.h>
#include <qorxmlu/foundation/Thread.h>
#include <qorxmlu/query/SafeItem.h>
#include <qorxmlu/query/SimpleSoap.h>

namespace QOR {

class HttpClient;
// One queued query and the outcome for its caller; internal to the queue.
struct QueueEntry;

class QORXMLU_API SoapQueue {
public:
  // The worker: runs one query after another until the queue's stop event is set.
  class QORXMLU_API QueueThread : public Thread {
  public:
    // A thread named "SoapQueue :: QueueThread" that works for queue and stops on stopEvent,
    // which the queue keeps.
    QueueThread(SoapQueue* queue, Event* stopEvent);
    // Stops the worker if it still runs.
    ~QueueThread() override;

  protected:
    // Runs queries until the stop event is set; returns null.
    [[nodiscard]] ErrorInfo* ThreadBody(bool& finished) override;

  private:
    SoapQueue* owner;
  };

  // A queue that doesn't run yet; queries added now wait for StartRunning.
  SoapQueue();
  SoapQueue(const SoapQueue&) = delete;
  SoapQueue& operator=(const SoapQueue&) = delete;
  // Stops the worker as StopRunning does; callers still queued wake with an error.
  virtual ~SoapQueue();

  // Runs the queries on client, which stays the host's and must outlive the worker. Starts the
  // worker; an error if it can't start. A stopped queue may be started again.
  [[nodiscard]] ErrorInfo* StartRunning(HttpClient* client);
  // Waits for the query being run, ends the worker and wakes the callers still queued with an
  // error. Always null.
  [[nodiscard]] ErrorInfo* StopRunning();
  // True while the worker runs.
  bool Running() const;

  // Runs soap's query (which must be there) through the queue and blocks until it is judged.
  // Null on success; otherwise the error of the request, of the reader, of the reply's status
  // tags, or of a stop. The reply stays in the query either way. Not for the worker thread.
  [[nodiscard]] ErrorInfo* AddBlockingSoap(SafeItem<SimpleSoap> soap);
  // Cancels the request of the query being run for a blocked caller, who then gets the error of
  // the cancellation. Does nothing if none is running; queued queries are not touched.
  void CancelCallbackRequest();
  // Takes the outcome of a queued query that has no blocked caller, and owns error. Destroys error
  // here.
  virtual void SoapCallback(SafeItem<SimpleSoap>& soap, ErrorInfo* error);

private:
  // One turn of the worker; true when it is to end.
  bool ProcessNextSoap();
  // The oldest entry, taken off the queue, or null when the worker is to stop first.
  QueueEntry* TakeNextEntry();
  // Hands the outcome to the entry's caller, or to SoapCallback.
  void Deliver(QueueEntry* entry, ErrorInfo* outcome);
  // Takes every entry off the queue and delivers the stop error to each.
  void DropQueuedEntries();

  SVArray<QueueEntry*> queue;
  CountingSemaphore semaphore;
  Event stopEvent;
  bool blockingRequestRunning = false;
  HttpClient* client = nullptr;
  QueueThread queueThread;
};

} // namespace QOR
