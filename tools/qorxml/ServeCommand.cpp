// qorxml serve: the sample web service, until interrupted.
#include "Commands.h"
#include "SampleService.h"

#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace qorxml {

namespace {

volatile std::sig_atomic_t stopRequested = 0;

extern "C" void OnStopSignal(int) { stopRequested = 1; }

struct ServeOptions {
  std::string listen = "127.0.0.1:8080";
  std::string folder = "qorxml-uploads";
  std::vector<std::string> tls;
};

// "host:port" or "[v6-address]:port" into the settings; false if it is neither.
bool ParseListen(const std::string& listen, ServiceSettings& settings) {
  auto colon = listen.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  std::string host = listen.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  try {
    std::size_t used = 0;
    settings.port = std::stoi(listen.substr(colon + 1), &used);
    if (used != listen.size() - colon - 1 || settings.port < 0 || settings.port > 65535) return false;
  } catch (const std::exception&) {
    return false;
  }
  settings.host = host;
  return true;
}

int RunServe(const ServeOptions& options) {
  ServiceSettings settings;
  if (!ParseListen(options.listen, settings)) {
    std::cerr << "qorxml serve: --listen takes ADDR:PORT, not \"" << options.listen << "\"" << std::endl;
    return 2;
  }
  settings.uploadFolder = options.folder;
  if (options.tls.size() == 2) {
    settings.certificateFile = options.tls[0];
    settings.keyFile = options.tls[1];
  }
  settings.log = &std::cout;
  std::string error;
  auto service = StartSampleService(settings, error);
  if (!service) {
    std::cerr << "qorxml serve: " << error << std::endl;
    return 1;
  }
  std::signal(SIGINT, OnStopSignal);
  std::signal(SIGTERM, OnStopSignal);
  std::cout << "qorxml serve: listening on " << service->Url() << ", uploads to php/SafeTrace.php go to "
            << options.folder << std::endl;
  while (!stopRequested) std::this_thread::sleep_for(std::chrono::milliseconds(100));
  service->Stop();
  std::cout << "qorxml serve: stopped after " << service->Requests() << " requests" << std::endl;
  return 0;
}

} // namespace

void AddServeCommand(CLI::App& app, int& exitStatus) {
  auto options = std::make_shared<ServeOptions>();
  CLI::App* command = app.add_subcommand("serve", "Run the sample web service (loopback unless told otherwise)");
  command->add_option("--listen", options->listen, "ADDR:PORT to listen on (default 127.0.0.1:8080; port 0: any)");
  command->add_option("--dir", options->folder, "Folder for uploads to php/SafeTrace.php (default qorxml-uploads)");
  command->add_option("--tls", options->tls, "Serve HTTPS with a certificate and its key: CERT KEY (PEM files)")
      ->expected(2)
      ->type_name("FILE");
  command->callback([options, &exitStatus] { exitStatus = RunServe(*options); });
}

} // namespace qorxml
