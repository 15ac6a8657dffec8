// lbVersions: the registry of component versions shown by a version screen.
#pragma once

#include <iosfwd>
#include <string>
#include <utility>
#include <vector>

#include "lbBase.h"

class lbVersions : public lbBase {
public:
    lbVersions() { LB_CONSTRUCTOR(); }
    virtual ~lbVersions() { LB_DESTRUCTOR_CHECK("virtual lbVersions::~lbVersions()"); }

    // Adds a component, or replaces the version of one already registered.
    void Register(const std::string& name, const std::string& version);
    // The same, for the application itself: it is listed first.
    void RegisterApplication(const std::string& name, const std::string& version);
    // Writes one line per registered component, then the framework's own
    // version and the OpenSSL library in use.
    void Display(const std::ostream& out) const;

private:
    std::vector<std::pair<std::string, std::string>> _entries;
};

// The framework's own version.
#define LOCKBASE_VERSION "1.0.0"
