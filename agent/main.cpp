// markforge-agent: the signing agent's entry point.
#include "agentApp.h"
#include "agentOptions.h"

int main(int argc, char** argv)
{
    agent::AgentOptions options;
    const int status = options.Parse(argc, argv);
    if (status >= 0) return status;
    agent::AgentApp app;
    return app.Run(options);
}
