// markforge::Main: the markforge program's command line and its dispatch to
// the commands.
#pragma once

#include "exitStatus.h"
#include "lbMain.h"

namespace markforge {

class Main : public lbMain {
public:
    Main();
    virtual ~Main() {}

    // Parses the command line and runs one command; false unless it ended
    // with status 0. The status is then in Status().
    bool Run(int argc, char** argv) override;
    exitStatus Status() const { return _status; }
    // --verbose was given: a failure shows the library's error trail too.
    bool Verbose() const { return _verbose; }

private:
    bool OpenCrypto();
    void CloseCrypto();

    exitStatus _status = exitStatus::ok;
    bool _verbose = false;
};

}  // namespace markforge
