// lbBase: the base class of every object — the three-step open/close
// lifecycle and the error trail that failures are recorded on.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <typeinfo>

class lbBase {
public:
    lbBase();
    // A copy is a new object: it starts closed and keeps nothing of the
    // source's lifecycle; assignment copies values, never lifecycle state.
    lbBase(const lbBase& other);
    lbBase& operator=(const lbBase& other);

    // The class's own opening work; the base has none and succeeds.
    virtual bool Open();
    // The class's own closing work; the base has none and succeeds.
    virtual bool Close();
    virtual ~lbBase();

    // First opening step: records where the object is opened and by whom.
    // False when the object is already open.
    bool PreOpen(const char* file, unsigned line, lbBase* opener);
    // Third opening step: marks the object open. False (with its own trail
    // entry and the error flag raised) without a matching PreOpen.
    bool PostOpen(unsigned line);
    // First closing step: false when the object is not open.
    bool PreClose();
    // Third closing step: the object no longer counts as open. Callers ignore
    // the result.
    bool PostClose();

    // Appends a location entry (function text, source path, line) to the trail.
    void addHistory(const char* function, const char* file, int line) const;
    // Appends a printf-style message entry to the trail.
    void addMessage(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    // Appends where `object` was opened and by which object.
    void addOpenedByHistory(lbBase* object);
    // True when the trail holds any entry.
    bool HaveStackTrace();
    // Writes the trail, innermost failure first, for a person to read.
    void DumpStackTrace(std::ostream& out);

    // True between a successful PostOpen and the next PostClose.
    bool IsOpen() const { return _opened; }

protected:
    // The writes every class constructor performs after the base constructor.
    void ConstructAs(int line, const char* mangledTypeName);
    // The check every class destructor performs: an object destroyed while
    // open is reported (unless an earlier failure already raised the flag).
    void CheckClosedOnDestruction(const char* function, const char* file, int line) noexcept;

    bool _opened;
    int _line;
    uint32_t _openCount;   // framework word: successful opens since construction
    std::string _type_name;
    uint32_t _closeCount;  // framework word: completed closes since construction

private:
    std::string _openedFile;
    unsigned _openedLine;
    std::string _openerTypeName;
    bool _preOpened;
};

// Every class constructor, written in its header, begins with this line.
#define LB_CONSTRUCTOR() ConstructAs(__LINE__, typeid(*this).name())
// Every class destructor, written in its header, consists of this line with
// its own signature text.
#define LB_DESTRUCTOR_CHECK(signature) CheckClosedOnDestruction(signature, __FILE__, __LINE__)
