// markforge::libraryConsole: stream buffers standing in for the library's
// standard output and standard error.
#include "libraryConsole.h"

#include <unistd.h>

namespace markforge {
namespace {

// Straight to file descriptor 2: std::cerr is taken over meanwhile.
void WriteToStandardError(const std::string& text)
{
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(STDERR_FILENO, text.data() + done, text.size() - done);
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

}  // namespace

libraryConsole::libraryConsole(bool verbose, std::function<void(const std::string&)> onTraceLine)
    : _traces(verbose, std::move(onTraceLine)),
      _savedOut(std::cout.rdbuf(&_traces)),
      _savedErr(std::cerr.rdbuf(&_errors))
{
}

libraryConsole::~libraryConsole()
{
    std::cout.rdbuf(_savedOut);
    std::cerr.rdbuf(_savedErr);
}

libraryConsole::traceBuffer::traceBuffer(bool verbose, std::function<void(const std::string&)> onLine)
    : _verbose(verbose), _onLine(std::move(onLine))
{
}

void libraryConsole::traceBuffer::Take(char c)
{
    _line.push_back(c);
    if (c != '\n') return;
    if (_verbose) WriteToStandardError(_line);
    _line.pop_back();
    if (_onLine) _onLine(_line);
    _line.clear();
}

libraryConsole::traceBuffer::int_type libraryConsole::traceBuffer::overflow(int_type c)
{
    if (!traits_type::eq_int_type(c, traits_type::eof())) Take(traits_type::to_char_type(c));
    return traits_type::not_eof(c);
}

std::streamsize libraryConsole::traceBuffer::xsputn(const char* s, std::streamsize n)
{
    for (std::streamsize i = 0; i < n; ++i) Take(s[i]);
    return n;
}

libraryConsole::keepBuffer::int_type libraryConsole::keepBuffer::overflow(int_type c)
{
    if (!traits_type::eq_int_type(c, traits_type::eof())) text.push_back(traits_type::to_char_type(c));
    return traits_type::not_eof(c);
}

std::streamsize libraryConsole::keepBuffer::xsputn(const char* s, std::streamsize n)
{
    text.append(s, static_cast<size_t>(n));
    return n;
}

}  // namespace markforge
