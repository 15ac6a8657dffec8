// lbBase: lifecycle bookkeeping, trail recording and the trail dump.
#include "lbBase.h"

#include <cxxabi.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <vector>

#include "lbGlobal.h"

namespace {

// The demangled form of a mangled type name, or empty when the demangler
// cannot read it.
std::string Demangle(const std::string& mangled)
{
    int status = -1;
    std::unique_ptr<char, void (*)(void*)> name(
        abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, &status), std::free);
    if (status != 0 || !name) return std::string();
    return std::string(name.get());
}

std::string StripPointerMark(const char* mangled)
{
    std::string name = mangled ? mangled : "";
    if (!name.empty() && name[0] == '*') name.erase(0, 1);
    return name;
}

void Append(lbTrailEntry::Kind kind, std::string function, std::string file, int line, std::string text)
{
    lbGlobal.trail.push_back(lbTrailEntry{kind, std::move(function), std::move(file), line, std::move(text)});
}

}  // namespace

lbBase::lbBase()
    : _opened(false), _line(0), _openCount(0), _closeCount(0), _openedLine(0), _preOpened(false)
{
}

lbBase::lbBase(const lbBase& other)
    : _opened(false),
      _line(other._line),
      _openCount(0),
      _type_name(other._type_name),
      _closeCount(0),
      _openedLine(0),
      _preOpened(false)
{
}

lbBase& lbBase::operator=(const lbBase&)
{
    return *this;
}

bool lbBase::Open()
{
    return true;
}

bool lbBase::Close()
{
    return true;
}

lbBase::~lbBase() = default;

void lbBase::ConstructAs(int line, const char* mangledTypeName)
{
    _opened = false;
    _line = line;
    _openCount = 0;
    _type_name = StripPointerMark(mangledTypeName);
    _closeCount = 0;
}

bool lbBase::PreOpen(const char* file, unsigned line, lbBase* opener)
{
    if (_opened) return false;
    _openedFile = file ? file : "";
    _openedLine = line;
    _openerTypeName = opener ? Demangle(opener->_type_name) : std::string();
    _preOpened = true;
    return true;
}

bool lbBase::PostOpen(unsigned line)
{
    if (!_preOpened || line != _openedLine) {
        addHistory("bool lbBase::PostOpen(unsigned int)", __FILE__, __LINE__);
        addMessage("PostOpen() at line %u without a matching PreOpen()", line);
        lbGlobal.errorFlag = true;
        return false;
    }
    _preOpened = false;
    _opened = true;
    ++_openCount;
    return true;
}

bool lbBase::PreClose()
{
    return _opened;
}

bool lbBase::PostClose()
{
    const bool wasOpen = _opened;
    _opened = false;
    if (wasOpen) ++_closeCount;
    return wasOpen;
}

void lbBase::addHistory(const char* function, const char* file, int line) const
{
    Append(lbTrailEntry::Kind::Location, function ? function : "", file ? file : "", line, std::string());
}

void lbBase::addMessage(const char* format, ...) const
{
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string text;
    if (length > 0) {
        std::vector<char> buffer(static_cast<size_t>(length) + 1);
        std::vsnprintf(buffer.data(), buffer.size(), format, args);
        text.assign(buffer.data(), static_cast<size_t>(length));
    }
    va_end(args);
    Append(lbTrailEntry::Kind::Message, std::string(), std::string(), 0, std::move(text));
}

void lbBase::addOpenedByHistory(lbBase* object)
{
    if (!object) return;
    Append(lbTrailEntry::Kind::OpenedBy, std::string(), object->_openedFile,
           static_cast<int>(object->_openedLine), object->_openerTypeName);
}

bool lbBase::HaveStackTrace()
{
    return !lbGlobal.trail.empty();
}

void lbBase::DumpStackTrace(std::ostream& out)
{
    // One numbered step per location entry; messages and opened-by records
    // belong to the step before them. The first step is the innermost failure.
    out << "Error trail (innermost failure first):\n";
    unsigned step = 0;
    bool inStep = false;
    for (const lbTrailEntry& entry : lbGlobal.trail) {
        switch (entry.kind) {
        case lbTrailEntry::Kind::Location:
            out << "#" << ++step << "  " << entry.function << "\n"
                << "    at " << entry.file << ":" << entry.line << "\n";
            inStep = true;
            break;
        case lbTrailEntry::Kind::Message:
            if (!inStep) out << "#" << ++step << "\n";
            out << "    " << entry.text << "\n";
            inStep = true;
            break;
        case lbTrailEntry::Kind::OpenedBy:
            out << "    opened at " << entry.file << ":" << entry.line << " by "
                << (entry.text.empty() ? std::string("(unknown)") : entry.text) << "\n";
            break;
        }
    }
    out.flush();
}

void lbBase::CheckClosedOnDestruction(const char* function, const char* file, int line) noexcept
{
    if (!_opened || lbGlobal.errorFlag) return;
    try {
        addHistory(function, file, line);
        const std::string name = Demangle(_type_name);
        if (!name.empty())
            addMessage("Object ( %s ) was not closed before going out of scope. ", name.c_str());
        addOpenedByHistory(this);
    } catch (...) {
        // Out of memory while reporting: the flag below still records the fault.
    }
    lbGlobal.errorFlag = true;
}
