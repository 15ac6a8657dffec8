// A network namespace of the test's own, so that a stand-in for a service on
// a fixed port (the signing agent's 127.0.0.1:8001) never meets the
// machine's: an installed agent, or another test run.
#pragma once

namespace testsupport {

// Moves the calling thread, and every thread and process it starts from
// then on, into a new network namespace with its loopback up; once per
// process. True when it is in one (as root, on a kernel that allows it);
// false, and nothing changed, otherwise.
bool EnterPrivateNetwork();

}  // namespace testsupport
