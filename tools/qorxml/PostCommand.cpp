// qorxml post: one request through HttpClient; the reply goes to stdout as it came.
#include "Commands.h"
#include "ToolSupport.h"

#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace qorxml {

namespace {

struct PostOptions {
  std::string server;
  std::string url;
  std::vector<std::string> fields;
  std::string file;
  bool secure = false;
  std::string prefix;
  unsigned base64Block = 0;
  unsigned connectTimeout = 10;
  unsigned timeout = 60;
};

// Fills the form; false (with a message) for a field without '='.
bool FillForm(const PostOptions& options, ProgressClient& client) {
  for (const std::string& field : options.fields) {
    std::string name, value;
    if (!SplitField(field, name, value)) {
      std::cerr << "qorxml post: a field is name=value, not \"" << field << "\"" << std::endl;
      return false;
    }
    client.AddFormField(Text(name), Text(value));
  }
  if (options.file.empty()) return true;
  client.SetUploadFile(Text(options.file), u"userfile");
  if (StderrIsTerminal()) client.WatchNextPost(DrawProgressBar);
  return true;
}

int RunPost(const PostOptions& options) {
  HttpSession session;
  if (!session.Error().empty()) {
    std::cerr << "qorxml post: " << session.Error() << std::endl;
    return 1;
  }
  auto client = MakeClient(options.server, options.secure, options.connectTimeout, options.timeout);
  client->AddUrlPrefix(Text(options.prefix));
  if (!FillForm(options, *client)) return 2;

  std::string reply, error;
  if (options.base64Block) {
    char* buffer = nullptr;
    std::size_t length = 0;
    error = TakeErrorText(client->RetrieveBase64(options.base64Block, Text(options.url), buffer, length));
    if (buffer) reply.assign(buffer, length);
    delete[] buffer;
  } else {
    QOR::String text;
    error = TakeErrorText(client->Retrieve(Text(options.url), text));
    reply = Utf8(text);
  }
  if (!error.empty()) {
    std::cerr << "qorxml post: " << error << std::endl;
    return 1;
  }
  WriteStdout(reply);
  return 0;
}

} // namespace

void AddPostCommand(CLI::App& app, int& exitStatus) {
  auto options = std::make_shared<PostOptions>();
  CLI::App* command = app.add_subcommand("post", "Post a multipart form (and a file) and print the reply");
  command->add_option("SERVER", options->server, "host or host:port")->required();
  command->add_option("URL", options->url, "Path on the server, put behind --prefix")->required();
  command->add_option("-F,--field", options->fields, "A form field name=value (repeatable)")
      ->allow_extra_args(false);
  command->add_option("--file", options->file, "A file to send as the field \"userfile\"");
  command->add_flag("--secure", options->secure, "HTTPS instead of HTTP");
  command->add_option("--prefix", options->prefix, "Text put before URL");
  command->add_option("--base64", options->base64Block,
                      "Decode the reply as Base64, reading it in blocks of this many bytes");
  command->add_option("--connect-timeout", options->connectTimeout, "Seconds to connect (default 10)");
  command->add_option("--timeout", options->timeout, "Seconds for the whole request (default 60)");
  command->callback([options, &exitStatus] { exitStatus = RunPost(*options); });
}

} // namespace qorxml
