// markforge::libraryConsole: takes over standard output and standard error of
// the library while it builds, so that standard output carries only the
// program's own report.
#pragma once

#include <functional>
#include <iostream>
#include <streambuf>
#include <string>

namespace markforge {

class libraryConsole {
public:
    // Every complete line the library writes to standard output is handed to
    // `onTraceLine`, and also copied to standard error when `verbose`.
    // What it writes to standard error is kept for Messages().
    libraryConsole(bool verbose, std::function<void(const std::string&)> onTraceLine);
    // Gives both streams back.
    ~libraryConsole();
    libraryConsole(const libraryConsole&) = delete;
    libraryConsole& operator=(const libraryConsole&) = delete;

    // What the library wrote to standard error so far.
    const std::string& Messages() const { return _errors.text; }

private:
    // Unbuffered, so that a trace line is seen the moment it is written.
    class traceBuffer : public std::streambuf {
    public:
        traceBuffer(bool verbose, std::function<void(const std::string&)> onLine);

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* s, std::streamsize n) override;

    private:
        void Take(char c);

        bool _verbose;
        std::function<void(const std::string&)> _onLine;
        std::string _line;
    };

    class keepBuffer : public std::streambuf {
    public:
        std::string text;

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* s, std::streamsize n) override;
    };

    traceBuffer _traces;
    keepBuffer _errors;
    std::streambuf* _savedOut;
    std::streambuf* _savedErr;
};

}  // namespace markforge
