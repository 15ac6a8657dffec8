// markforge::agentSigner: production signatures from the signing agent on
// 127.0.0.1, with the request every signer sends (signAgentProtocol.h), one
// connection per signature, and a deadline on connect, send and receive set
// on the socket itself.
#pragma once

#include <functional>
#include <string>

#include "signAgentProtocol.h"
#include "signer.h"

namespace markforge {

class agentSigner : public signer {
public:
    // `seconds` bounds each of connect, send and the wait for the answer.
    agentSigner(std::string keyName, double seconds, unsigned short port = SIGN_AGENT_PORT);

    // Called with one line per exchange (what was asked, what came back), from
    // the signing thread.
    void SetTrace(std::function<void(const std::string&)> trace) { _trace = std::move(trace); }

    signatureResult Sign(const signatureRequest& request) override;
    std::string Describe() const override;

private:
    signatureResult Exchange(const std::vector<uint8_t>& request) const;

    std::string _keyName;
    double _seconds;
    unsigned short _port;
    std::function<void(const std::string&)> _trace;
};

}  // namespace markforge
