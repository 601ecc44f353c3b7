// The sample web service for local work, on its own threads for the life of the object.
//
// Every POST carries a multipart form, and the answer is a reply document in the library's dialect:
//   <Reply>
//     <Success>  the field "status" as it came, 0 if there is none
//     <ErrorPrefix>  the field "prefix", only if there is one
//     <Path>  the path of the request
//     <Field> <Name/> <Value/> </Field>            one per text field, in body order
//     <File> <Field/> <Name/> <Size/> <SHA256/> [<StoredAs/>] </File>   one per file part
// An upload to a path ending in "php/SafeTrace.php" is stored in the upload folder, under the
// time, a sequence number and its file name. A field "delay" holds the answer back for that many
// milliseconds (at most 5000), so that queued queries can be watched. The dialect has no escapes,
// so values are echoed on one line: a line end becomes "[crlf]", "<" and ">" become "[lt]" and
// "[gt]", and "!--" becomes "[excl]--". A body that is no multipart form gets a 400 with a one-line
// reason. Each request is logged as one line.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>

namespace qorxml {

struct ServiceSettings {
  std::string host = "127.0.0.1";
  int port = 8080; // 0: any free port
  std::filesystem::path uploadFolder = "qorxml-uploads";
  std::string certificateFile; // both set: HTTPS
  std::string keyFile;
  std::ostream* log = nullptr; // one line per request; null for none
};

class SampleService {
public:
  virtual ~SampleService() = default;
  // The port it listens on.
  virtual int Port() const = 0;
  // "http://host:port/" (https with TLS).
  virtual std::string Url() const = 0;
  // Requests answered so far.
  virtual std::size_t Requests() const = 0;
  // Stops serving and joins its threads; the destructor does it too.
  virtual void Stop() = 0;
};

// Starts the service. Null, with error set, if it cannot listen or this build has no server.
std::unique_ptr<SampleService> StartSampleService(const ServiceSettings& settings, std::string& error);

// The SHA-256 of bytes in lower-case hex (builds with the service only).
std::string Sha256Hex(const std::string& bytes);

// Runs the demo against a service of its own; returns the exit status.
int RunDemoStory(std::ostream& out);

} // namespace qorxml
