// qorxml query: one SimpleSoap through a SoapQueue; prints the reply document and the outcome the
// queue judged from its status tags.
#include "Commands.h"
#include "ToolSupport.h"

#include <qorxmlu/query/SafeItem.h>
#include <qorxmlu/query/SimpleSoap.h>
#include <qorxmlu/query/SoapQueue.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace qorxml {

namespace {

struct QueryOptions {
  std::string server;
  std::string url;
  std::vector<std::string> parameters;
  std::string file;
  bool secure = false;
  std::string prefix;
  unsigned timeout = 60;
};

// The query, or null (with a message) for a parameter without '='.
QOR::SimpleSoap* MakeQuery(const QueryOptions& options) {
  auto query = std::make_unique<QOR::SimpleSoap>(Text(options.url), 1, u"qorxml");
  for (const std::string& parameter : options.parameters) {
    std::string name, value;
    if (!SplitField(parameter, name, value)) {
      std::cerr << "qorxml query: a parameter is name=value, not \"" << parameter << "\"" << std::endl;
      return nullptr;
    }
    query->AddParameter(Text(name), Text(value));
  }
  query->AddFileUploadParam(Text(options.file));
  return query.release();
}

// The reply document, if the query holds one (a failed request leaves the empty document).
void PrintReply(const QOR::SimpleSoap& query) {
  const QOR::XMLTag* top = query.TopTag();
  if (!top || (top->GetName().IsEmpty() && top->NoOfNestedTags() == 0)) return;
  WriteStdout(Utf8(query.GetText()));
}

int RunQuery(const QueryOptions& options) {
  HttpSession session;
  if (!session.Error().empty()) {
    std::cerr << "qorxml query: " << session.Error() << std::endl;
    return 1;
  }
  QOR::SimpleSoap* made = MakeQuery(options);
  if (!made) return 2;
  QOR::SafeItem<QOR::SimpleSoap> query(made);

  auto client = MakeClient(options.server, options.secure, 10, options.timeout);
  client->AddUrlPrefix(Text(options.prefix));
  std::string outcome;
  {
    QOR::SoapQueue queue;
    outcome = TakeErrorText(queue.StartRunning(client.get()));
    if (outcome.empty()) outcome = TakeErrorText(queue.AddBlockingSoap(query));
    delete queue.StopRunning();
  }
  PrintReply(*query.Get());
  WriteStdout("outcome: " + (outcome.empty() ? std::string("success") : "error: " + outcome) + "\n");
  return outcome.empty() ? 0 : 1;
}

} // namespace

void AddQueryCommand(CLI::App& app, int& exitStatus) {
  auto options = std::make_shared<QueryOptions>();
  CLI::App* command = app.add_subcommand("query", "Run one query through a queue and judge its reply");
  command->add_option("SERVER", options->server, "host or host:port")->required();
  command->add_option("URL", options->url, "Path of the service, put behind --prefix")->required();
  command->add_option("-p,--param", options->parameters, "A parameter name=value (repeatable)")
      ->allow_extra_args(false);
  command->add_option("--file", options->file, "A file to upload with the query");
  command->add_flag("--secure", options->secure, "HTTPS instead of HTTP");
  command->add_option("--prefix", options->prefix, "Text put before URL");
  command->add_option("--timeout", options->timeout, "Seconds for the whole request (default 60)");
  command->callback([options, &exitStatus] { exitStatus = RunQuery(*options); });
}

} // namespace qorxml
