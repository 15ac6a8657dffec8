// recaster: a look at the labels of the PEM blocks in a key file.
#include "pemLabels.h"

#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace recaster {

namespace {

constexpr std::string_view kBoundary = "-----BEGIN";
constexpr std::string_view kPublicKeyLine = "-----BEGIN PUBLIC KEY-----";

bool StartsPublicKeyLine(std::string_view rest)
{
    if (rest.substr(0, kPublicKeyLine.size()) != kPublicKeyLine) return false;
    const std::string_view end = rest.substr(kPublicKeyLine.size(), 2);
    return end.substr(0, 1) == "\n" || end == "\r\n";
}

// Reads the whole regular file behind `fd` if it is no bigger than `limit`.
bool ReadSmallRegularFile(int fd, std::size_t limit, std::string& text)
{
    struct stat st {};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) return false;
    if (st.st_size < 0 || static_cast<unsigned long long>(st.st_size) > limit) return false;
    text.resize(static_cast<std::size_t>(st.st_size));
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t got = pread(fd, &text[done], text.size() - done, static_cast<off_t>(done));
        if (got <= 0) return false;  // an error, or the file shrank under us
        done += static_cast<std::size_t>(got);
    }
    return true;
}

}  // namespace

bool HasOnlyPublicKeyBlocks(std::string_view text)
{
    for (std::size_t at = text.find(kBoundary); at != std::string_view::npos; at = text.find(kBoundary, at + 1))
        if (!StartsPublicKeyLine(text.substr(at))) return false;
    return true;
}

bool StreamHasOnlyPublicKeyBlocks(std::FILE* stream)
{
    std::string text;
    return ReadSmallRegularFile(fileno(stream), kMaxLabelScanBytes, text) && HasOnlyPublicKeyBlocks(text);
}

}  // namespace recaster
