// lbGlobal: the process-wide state object and the version registry it owns.
#include "lbGlobal.h"

#include "lbVersions.h"

extern lbVersions lbVersionRegistry;

// Defined before the registry so that it is destroyed after it: the
// registry's destructor check may still consult the error flag.
lbGlobals lbGlobal;
lbVersions lbVersionRegistry;

lbGlobals::lbGlobals() : errorFlag(false), versions(&lbVersionRegistry) {}

void lbGlobals::Reset()
{
    errorFlag = false;
    trail.clear();
}

std::string lbGlobals::MessagesSince(size_t from) const
{
    std::string text;
    for (size_t i = from; i < trail.size(); ++i)
        if (trail[i].kind == lbTrailEntry::Kind::Message) text += trail[i].text + "\n";
    return text;
}
