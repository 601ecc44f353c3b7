// A trace of the host's classes and functions in one text file, written from any thread, and the
// upload of the previous run's file when a new run starts.
//
// A host class keeps a SafeTrace with its class name; a host function makes a FuncTrace at its
// head, which writes "Entering Class::Function" when made and "Leaving Class::Function" when it
// goes out of scope, also by an exception. Each line is UTF-8 ending in CR LF, and is opened,
// written, flushed and closed on its own under one process-wide lock: lines of different threads
// never mix, and a line is in the file when the call returns. A line that can't be written is
// lost without a word. There are no levels and no off switch.
//
// SetTracePath and SetTraceClient are start-up calls, made while no other thread traces.
//
// Nothing here is inline: every operation lives in the library.
#pragma once

#include <qorxmlu/Export.h>
#include <qorxmlu/foundation/String.h>

namespace QOR {

class HttpClient;

class QORXMLU_API SafeTrace {
public:
  // The lines of one function of the class that owner traces.
  class QORXMLU_API FuncTrace {
  public:
    // Writes "Entering <class>::<funcName>"; funcName is UTF-8. owner must outlive this object.
    FuncTrace(const char* funcName, const SafeTrace& owner);
    FuncTrace(const FuncTrace&) = delete;
    FuncTrace& operator=(const FuncTrace&) = delete;
    // Writes "Leaving <class>::<funcName>".
    ~FuncTrace();

    // Writes "<class>::<funcName>: <text>".
    void Trace(String text) const;

  private:
    String funcName;
    const SafeTrace* owner;
  };

  // A tracer for the class of that name (UTF-8). Writes nothing.
  explicit SafeTrace(const char* className);

  // Sets the trace file for all following lines. Call it before anything else of this class but
  // the constructor; the file isn't touched here.
  static void SetTracePath(String path);
  // Sends the trace file that an earlier run left, if there is one, to "php/SafeTrace.php" behind
  // client's url prefix, and then empties the file or makes it. A failed upload is dropped. Throws
  // std::runtime_error "Failed to open SafeTrace file" when the file can't be emptied. client must
  // not be null if a trace file may exist; it stays the host's.
  static void SetTraceClient(HttpClient* client);
  // Appends text and a line end to the trace file.
  static void Trace(String text);

private:
  String className;
};

} // namespace QOR
