#include "ToolSupport.h"

#include <algorithm>
#include <cstdio>

namespace qorxml {

QOR::String Text(const std::string& utf8) { return QOR::String::FromUtf8(utf8); }

std::string Utf8(const QOR::String& text) { return text.ToUtf8(); }

std::string TakeErrorText(QOR::ErrorInfo* error) {
  if (!error) return "";
  std::string text = Utf8(error->FullText(u"; "));
  delete error;
  return text;
}

bool SplitField(const std::string& field, std::string& name, std::string& value) {
  auto equals = field.find('=');
  if (equals == std::string::npos) return false;
  name = field.substr(0, equals);
  value = field.substr(equals + 1);
  return true;
}

void WriteStdout(const std::string& bytes) {
  std::fwrite(bytes.data(), 1, bytes.size(), stdout);
  std::fflush(stdout);
}

HttpSession::HttpSession() { error = TakeErrorText(QOR::HttpClient::InitialiseHttp()); }

HttpSession::~HttpSession() {
  if (error.empty()) delete QOR::HttpClient::TerminateHttp();
}

void ProgressClient::WatchNextPost(std::function<void(int)> callback) {
  onPercent = std::move(callback);
  // 20 figures a second for at least a second, paced by the body that the form makes now; the
  // figure never runs ahead of the bytes written.
  progressInterval = 50;
  progressDuration = 1000;
  progressTotal = FormBodySize();
}

void ProgressClient::ReportProgress(int percent) {
  if (onPercent) onPercent(percent);
}

void DrawProgressBar(int percent) {
  constexpr int width = 40;
  int filled = percent * width / 100;
  std::string bar = "\r[" + std::string(filled, '#') + std::string(width - filled, ' ') + "] ";
  std::fprintf(stderr, "%s%3d%%%s", bar.c_str(), percent, percent >= 100 ? "\n" : "");
  std::fflush(stderr);
}

std::unique_ptr<ProgressClient> MakeClient(const std::string& server, bool secure, unsigned connectTimeoutSeconds,
                                           unsigned requestTimeoutSeconds) {
  return std::make_unique<ProgressClient>(u"qorxml", Text(server), secure, connectTimeoutSeconds,
                                          requestTimeoutSeconds);
}

} // namespace qorxml
