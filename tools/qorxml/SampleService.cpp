#include "SampleService.h"

#include "FormParser.h"
#include "ToolSupport.h"

#include <qorxmlu/xml/XML.h>
#include <qorxmlu/xml/XMLTag.h>

#include <httplib.h>
#include <openssl/evp.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <ctime>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

namespace qorxml {

namespace {

constexpr char traceScript[] = "php/SafeTrace.php";
constexpr int longestDelayMs = 5000;

// The time in UTC with an strftime format; std::gmtime shares one buffer, hence the lock.
std::string UtcTime(const char* format) {
  static std::mutex lock;
  std::time_t now = std::time(nullptr);
  char text[64];
  std::lock_guard<std::mutex> hold(lock);
  std::strftime(text, sizeof text, format, std::gmtime(&now));
  return text;
}

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

// A text the dialect reads back as the value of a one-line tag.
QOR::String OneLine(std::string text) {
  ReplaceAll(text, "\r\n", "\n");
  ReplaceAll(text, "\r", "\n");
  ReplaceAll(text, "\n", "[crlf]");
  ReplaceAll(text, "<", "[lt]");
  ReplaceAll(text, ">", "[gt]");
  ReplaceAll(text, "!--", "[excl]--");
  return Text(text);
}

bool IsTraceScript(const std::string& path) {
  const std::string script = traceScript;
  return path.size() >= script.size() && path.compare(path.size() - script.size(), script.size(), script) == 0;
}

// A file name that is safe in any folder: letters, digits, '.', '-' and '_' only.
std::string SafeFileName(const std::string& name) {
  std::string safe;
  for (char c : name) safe += std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' ? c : '_';
  return safe.empty() || safe.front() == '.' ? "upload" + safe : safe;
}

class Sha256 {
public:
  Sha256() : context(EVP_MD_CTX_new(), EVP_MD_CTX_free) { EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr); }
  void Add(const char* data, std::size_t length) { EVP_DigestUpdate(context.get(), data, length); }
  std::string Hex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_DigestFinal_ex(context.get(), digest, &length);
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) hex += {digits[digest[i] >> 4], digits[digest[i] & 15]};
    return hex;
  }

private:
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> context;
};

struct ReceivedPart {
  FormPartHead head;
  std::string value;         // a text field's content
  std::uint64_t size = 0;    // a file's bytes
  std::unique_ptr<Sha256> hash;
  std::unique_ptr<std::ofstream> stored;
  std::string storedAs;
};

struct ReceivedForm {
  std::vector<ReceivedPart> parts;
  std::string storeError;

  // The first text field of that name; false if there is none.
  bool Field(const std::string& name, std::string& value) const {
    for (const ReceivedPart& part : parts)
      if (!part.head.isFile && part.head.name == name) {
        value = part.value;
        return true;
      }
    return false;
  }
  std::string Summary() const {
    std::size_t fields = 0;
    std::string files;
    for (const ReceivedPart& part : parts) {
      if (!part.head.isFile) ++fields;
      else files += " file=" + part.head.fileName + "(" + std::to_string(part.size) + " bytes)";
    }
    return "fields=" + std::to_string(fields) + files;
  }
};

class LocalService : public SampleService {
public:
  explicit LocalService(const ServiceSettings& settings) : settings(settings) {}
  ~LocalService() override { Stop(); }

  bool Start(std::string& error);
  int Port() const override { return port; }
  std::string Url() const override {
    std::string host = settings.host.find(':') == std::string::npos ? settings.host : "[" + settings.host + "]";
    return (settings.certificateFile.empty() ? "http://" : "https://") + host + ":" + std::to_string(port) + "/";
  }
  std::size_t Requests() const override { return requests; }
  void Stop() override {
    stopping = true;
    if (!thread.joinable()) return;
    server->stop();
    thread.join();
  }

private:
  void AddRoutes();
  void Answer(const httplib::Request& request, httplib::Response& response);
  bool ReadForm(const httplib::Request& request, bool storeUploads, ReceivedForm& form);
  bool StartStoring(ReceivedPart& part, ReceivedForm& form);
  std::string ReplyDocument(const std::string& path, const ReceivedForm& form) const;
  void HoldBack(const ReceivedForm& form) const;
  void Log(const httplib::Request& request, const httplib::Response& response);

  ServiceSettings settings;
  std::unique_ptr<httplib::Server> server;
  std::thread thread;
  int port = 0;
  std::atomic<bool> stopping{false};
  std::atomic<std::size_t> requests{0};
  std::atomic<unsigned> uploads{0};
  std::mutex logLock;
};

bool LocalService::Start(std::string& error) {
  if (settings.certificateFile.empty()) {
    server = std::make_unique<httplib::Server>();
  } else {
    server = std::make_unique<httplib::SSLServer>(settings.certificateFile.c_str(), settings.keyFile.c_str());
    if (!server->is_valid()) {
      error = "cannot use the certificate " + settings.certificateFile + " with the key " + settings.keyFile;
      return false;
    }
  }
  AddRoutes();
  port = settings.port == 0 ? server->bind_to_any_port(settings.host)
                            : (server->bind_to_port(settings.host, settings.port) ? settings.port : -1);
  if (port <= 0) {
    error = "cannot listen on " + settings.host + ":" + std::to_string(settings.port);
    return false;
  }
  thread = std::thread([this] { server->listen_after_bind(); });
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!server->is_running() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return true;
}

void LocalService::AddRoutes() {
  server->set_payload_max_length(std::size_t(1) << 30);
  server->set_keep_alive_timeout(30);
  // cpp-httplib reads a multipart body as a form before the route runs, and refuses one that ends
  // right at its close delimiter, as the library's bodies do. The route reads the body raw instead
  // and hands it to ParseForm.
  server->set_pre_routing_handler([](const httplib::Request& request, httplib::Response&) {
    auto& headers = const_cast<httplib::Headers&>(request.headers);
    headers.erase("X-Form-Content-Type");
    auto type = headers.find("Content-Type");
    if (type != headers.end() && type->second.rfind("multipart/", 0) == 0) {
      headers.emplace("X-Form-Content-Type", type->second);
      type->second = "application/octet-stream";
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });
  server->Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
    Answer(request, response);
  });
  server->Get("/", [](const httplib::Request&, httplib::Response& response) {
    response.set_content("qorxml sample service: POST a multipart form to any path\n", "text/plain");
  });
  server->set_error_handler([](const httplib::Request&, httplib::Response& response) {
    if (response.body.empty())
      response.set_content("Error " + std::to_string(response.status) + "\n", "text/plain");
  });
  server->set_logger([this](const httplib::Request& request, const httplib::Response& response) {
    Log(request, response);
  });
}

void LocalService::Answer(const httplib::Request& request, httplib::Response& response) {
  ReceivedForm form;
  if (!request.has_header("X-Form-Content-Type")) {
    response.status = 400;
    response.set_content("Bad request: the body is not a multipart/form-data form\n", "text/plain");
    return;
  }
  if (!ReadForm(request, IsTraceScript(request.path), form)) {
    response.status = 400;
    response.set_content("Bad request: malformed multipart/form-data body\n", "text/plain");
    return;
  }
  HoldBack(form);
  response.set_header("X-Form", form.Summary());
  response.set_content(ReplyDocument(request.path, form), "text/xml; charset=utf-8");
}

bool LocalService::ReadForm(const httplib::Request& request, bool storeUploads, ReceivedForm& form) {
  auto onPart = [&](const FormPartHead& head) {
    ReceivedPart& part = form.parts.emplace_back();
    part.head = head;
    if (!head.isFile) return true;
    part.hash = std::make_unique<Sha256>();
    return !storeUploads || StartStoring(part, form);
  };
  auto onData = [&](const char* data, std::size_t length) {
    ReceivedPart& part = form.parts.back();
    if (!part.head.isFile) {
      part.value.append(data, length);
      return true;
    }
    part.size += length;
    part.hash->Add(data, length);
    if (part.stored) part.stored->write(data, static_cast<std::streamsize>(length));
    return true;
  };
  bool parsed = ParseForm(request.get_header_value("X-Form-Content-Type"), request.body, onPart, onData);
  for (ReceivedPart& part : form.parts)
    if (part.stored && !part.stored->flush()) form.storeError = "cannot write " + part.storedAs;
  return parsed;
}

bool LocalService::StartStoring(ReceivedPart& part, ReceivedForm& form) {
  std::error_code ignored;
  std::filesystem::create_directories(settings.uploadFolder, ignored);
  part.storedAs = UtcTime("%Y%m%d-%H%M%S-") + std::to_string(++uploads) + "-" + SafeFileName(part.head.fileName);
  part.stored = std::make_unique<std::ofstream>(settings.uploadFolder / part.storedAs, std::ios::binary);
  if (!*part.stored) {
    form.storeError = "cannot create " + (settings.uploadFolder / part.storedAs).string();
    part.stored.reset();
  }
  return true;
}

std::string LocalService::ReplyDocument(const std::string& path, const ReceivedForm& form) const {
  QOR::XML reply(u"Reply");
  QOR::XMLTag* top = reply.TopTag();
  std::string status = "0", prefix;
  form.Field("status", status);
  bool failed = !form.storeError.empty();
  if (failed) prefix = "Upload not stored: " + form.storeError + ": ";
  top->NestTag(u"Success", OneLine(failed ? "1" : status));
  if (failed || form.Field("prefix", prefix)) top->NestTag(u"ErrorPrefix", OneLine(prefix));
  top->NestTag(u"Path", OneLine(path));
  for (const ReceivedPart& part : form.parts) {
    if (!part.head.isFile) {
      QOR::XMLTag* field = top->NestTag(u"Field");
      field->NestTag(u"Name", OneLine(part.head.name));
      field->NestTag(u"Value", OneLine(part.value));
      continue;
    }
    QOR::XMLTag* file = top->NestTag(u"File");
    file->NestTag(u"Field", OneLine(part.head.name));
    file->NestTag(u"Name", OneLine(part.head.fileName));
    file->NestTag(u"Size", Text(std::to_string(part.size)));
    file->NestTag(u"SHA256", Text(part.hash->Hex()));
    if (part.stored) file->NestTag(u"StoredAs", OneLine(part.storedAs));
  }
  return Utf8(reply.GetText());
}

void LocalService::HoldBack(const ReceivedForm& form) const {
  std::string delay;
  if (!form.Field("delay", delay)) return;
  long ms = std::min<long>(std::strtol(delay.c_str(), nullptr, 10), longestDelayMs);
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  while (!stopping && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

void LocalService::Log(const httplib::Request& request, const httplib::Response& response) {
  ++requests;
  if (!settings.log) return;
  std::string form = response.get_header_value("X-Form");
  std::string line = UtcTime("%H:%M:%S ") + request.remote_addr + " " + request.method + " " + request.path + " " +
                     std::to_string(response.status) + " in=" + std::to_string(request.body.size()) +
                     " out=" + std::to_string(response.body.size()) + (form.empty() ? "" : " " + form) + "\n";
  std::lock_guard<std::mutex> hold(logLock);
  *settings.log << line << std::flush;
}

} // namespace

std::string Sha256Hex(const std::string& bytes) {
  Sha256 hash;
  hash.Add(bytes.data(), bytes.size());
  return hash.Hex();
}

std::unique_ptr<SampleService> StartSampleService(const ServiceSettings& settings, std::string& error) {
  auto service = std::make_unique<LocalService>(settings);
  if (!service->Start(error)) return nullptr;
  return service;
}

} // namespace qorxml
