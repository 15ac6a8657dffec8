// lbScoped: the framework's opening and closing steps for code outside a
// checked function. Open runs the three opening steps under one line; the
// object closes again on every way out of the scope, in whatever state a
// failed step left it, so that no path ends with the destructor's "was not
// closed" complaint.
#pragma once

#include "lbBase.h"

class lbScoped {
public:
    explicit lbScoped(lbBase& object) : _object(object) {}
    ~lbScoped() { Close(_object); }
    lbScoped(const lbScoped&) = delete;
    lbScoped& operator=(const lbScoped&) = delete;

    // PreOpen, `open` (the object's opening call) and PostOpen, the first
    // and last naming the same source line, as the framework requires.
    template <typename OpenCall>
    static bool Open(lbBase& object, const char* file, unsigned line, OpenCall&& open)
    {
        return object.PreOpen(file, line, nullptr) && open() && object.PostOpen(line);
    }

    // The three closing steps, when the object is open.
    static void Close(lbBase& object)
    {
        if (object.IsOpen() && object.PreClose()) {
            object.Close();
            object.PostClose();
        }
    }

private:
    lbBase& _object;
};
