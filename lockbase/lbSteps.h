// The five step patterns every checked function is built from, and the
// framework's standard messages.
//
// A function that records on the trail names itself once with LB_FUNCTION;
// every step below then records that text, the source path and the line of
// the step. The text is written out rather than taken from
// __PRETTY_FUNCTION__ because compilers disagree on how they spell types
// (std::string against string), and the trail is part of the interface.
#pragma once

#include "lbGlobal.h"

#define LB_MSG_CONTINUE "Unable to continue from previous error"
#define LB_MSG_BOOLEAN "Boolean return value failed."
#define LB_MSG_PREOPEN "Object PreOpen() routine failed."
#define LB_MSG_OPEN "Object Open() routine failed."

#define LB_FUNCTION(text) [[maybe_unused]] static constexpr const char* lbFunction = text

// Records a location entry under `tag` and the message `msg`.
#define LB_RECORD_AS(tag, msg)                  \
    do {                                        \
        addHistory((tag), __FILE__, __LINE__);  \
        addMessage("%s", (msg));                \
    } while (0)
#define LB_RECORD(msg) LB_RECORD_AS(lbFunction, msg)

// Raised failure: record, raise the flag, return false.
#define LB_FAIL_AS(tag, msg)            \
    do {                                \
        LB_RECORD_AS(tag, msg);         \
        lbGlobal.errorFlag = true;      \
        return false;                   \
    } while (0)
#define LB_FAIL(msg) LB_FAIL_AS(lbFunction, msg)

// Continue check: stop at once after an earlier failure.
#define LB_CONTINUE_CHECK()                  \
    do {                                     \
        if (lbGlobal.errorFlag) {            \
            LB_RECORD(LB_MSG_CONTINUE);      \
            return false;                    \
        }                                    \
    } while (0)

// Checked call of an operation returning bool.
#define LB_CHECK(call)                       \
    do {                                     \
        LB_CONTINUE_CHECK();                 \
        if (!(call)) LB_FAIL(LB_MSG_BOOLEAN); \
    } while (0)

// Checked open of `obj` with `openCall` as its opening work.
#define LB_OPEN_WITH(obj, openCall)                                      \
    do {                                                                 \
        LB_CONTINUE_CHECK();                                             \
        if (!(obj).PreOpen(__FILE__, __LINE__, this)) LB_FAIL(LB_MSG_PREOPEN); \
        if (!(openCall)) LB_FAIL(LB_MSG_OPEN);                           \
        if (!(obj).PostOpen(__LINE__)) return false;                     \
    } while (0)
#define LB_OPEN(obj) LB_OPEN_WITH(obj, (obj).Open())

// Checked close of `obj` with `closeCall` as its closing work.
#define LB_CLOSE_WITH(obj, closeCall)                   \
    do {                                                \
        LB_CONTINUE_CHECK();                            \
        if (!(obj).PreClose()) LB_FAIL(LB_MSG_BOOLEAN); \
        LB_CONTINUE_CHECK();                            \
        if (!(closeCall)) LB_FAIL(LB_MSG_BOOLEAN);      \
        (obj).PostClose();                              \
    } while (0)
#define LB_CLOSE(obj) LB_CLOSE_WITH(obj, (obj).Close())
