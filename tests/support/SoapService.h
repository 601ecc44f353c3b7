// The fake web service of the query and trace tests: the role "soap" of TestServers.h.
//
// Every request is a POST of a multipart form; the object path picks the answer:
//   /answer              the value of the form field "reply", as it came ("" if there is none)
//   /echo                the request body, as it came
//   /fields              a reply document: Success 0, then one Field tag per part in body order,
//                        with the part's name (and file name) as attributes and its content as value
//   /order               a reply document: Success 0, Order n (this service's nth /order request),
//                        Caller with the value of the field "caller"
//   /flaky               as /order in 95 of 100 requests (2 of them late); the others are reset
//                        before the answer, closed without one, answered with a line that is no
//                        HTTP, reset halfway through the body, or given the error status 3
//   /slow                waits the milliseconds of the field "ms" (cut short when the service
//                        stops), then answers as /answer
//   /php/SafeTrace.php   keeps the body as the last upload and answers a reply document
//   /uploads             the number of uploads so far, a line end, and the last upload's body
#pragma once

#include "TestServers.h"

#include <string>

namespace QOR::test {

struct SoapServiceAddresses {
  std::string service; // "127.0.0.1:<port>"
  std::string refused; // "127.0.0.1:<port>" where nothing listens
};

// The service of this test run.
inline const SoapServiceAddresses& TheSoapService() {
  static const SoapServiceAddresses addresses{TheServers()["soap"], TheServers()["refused"]};
  return addresses;
}

} // namespace QOR::test
