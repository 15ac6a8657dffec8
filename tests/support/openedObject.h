// Framework objects taken through their opening and closing sequences the
// way a checked open and close take them, for tests that drive an object
// directly instead of from another object's steps.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "lbGlobal.h"
#include "testSupport.h"

namespace testsupport {

// PreOpen, the object's own opening step `open(object)`, then PostOpen.
// PreOpen and PostOpen are expected to pass; PostOpen runs only after a
// successful opening step, as in a checked open. True when all three passed.
template <class T, class OpenStep>
bool OpenObject(T& object, OpenStep open)
{
    const unsigned line = __LINE__;
    const bool preOpened = object.PreOpen(__FILE__, line, nullptr);
    EXPECT_TRUE(preOpened);
    if (!open(object)) return false;
    const bool postOpened = object.PostOpen(line);
    EXPECT_TRUE(postOpened);
    return preOpened && postOpened;
}

// The same with the object's plain Open().
template <class T>
bool OpenObject(T& object)
{
    return OpenObject(object, [](T& o) { return o.Open(); });
}

// PreClose, Close, PostClose on an object that is still open; nothing on
// one that is not, so a test may have closed it itself.
template <class T>
void CloseObject(T& object)
{
    if (!object.IsOpen()) return;
    object.PreClose();
    object.Close();
    object.PostClose();
}

// An object opened when made and closed when it goes. `opened` tells
// whether the opening sequence passed; tests of refused openings look at it.
template <class T>
class Opened {
public:
    Opened() : Opened([](T& o) { return o.Open(); }) {}
    template <class OpenStep>
    explicit Opened(OpenStep open)
    {
        opened = OpenObject(_object, open);
    }
    ~Opened() { CloseObject(_object); }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;

    T* operator->() { return &_object; }
    T& operator*() { return _object; }

    bool opened = false;

private:
    T _object;
};

// Opens a T with `open` and lets it go out of scope still open: its
// destructor must report that on the trail, first, as `report`
// ("function|file|message"), and raise the flag.
template <class T, class OpenStep>
void ExpectReportedWhenDestroyedOpen(OpenStep open, const std::string& report)
{
    {
        T forgotten;
        ASSERT_TRUE(OpenObject(forgotten, open));
    }
    EXPECT_TRUE(lbGlobal.errorFlag);
    const std::vector<std::string> lines = TrailLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), report);
}

template <class T>
void ExpectReportedWhenDestroyedOpen(const std::string& report)
{
    ExpectReportedWhenDestroyedOpen<T>([](T& o) { return o.Open(); }, report);
}

}  // namespace testsupport
