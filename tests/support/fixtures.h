// Small helpers several test programs share: trail lines, file modes, key
// numbers from openssl, and reproducible test bytes.
#pragma once

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cctype>
#include <cstdint>
#include <string>
#include <vector>

#include "testSupport.h"

namespace testsupport {

// One line of TrailLines(): the function text, the source file and the message.
inline std::string TrailLine(const std::string& function, const std::string& file, const std::string& message)
{
    return function + "|" + file + "|" + message;
}

// The permission bits of a file.
inline mode_t FileMode(const std::string& path)
{
    struct stat info {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

// The modulus of an RSA key in a PEM file as openssl prints it: upper-case
// hex without a line end.
inline std::string OpensslModulusHex(const std::string& pemPath, bool publicKey)
{
    std::vector<std::string> args{"rsa"};
    if (publicKey) args.push_back("-pubin");
    args.insert(args.end(), {"-in", pemPath, "-modulus", "-noout"});
    // "Modulus=<upper-case hex>\n"
    std::string modulus = Openssl(args).out;
    modulus = modulus.substr(modulus.find('=') + 1);
    modulus.erase(modulus.find_last_not_of("\r\n") + 1);
    return modulus;
}

inline std::string Upper(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

// Reproducible bytes that are not all alike; each seed gives its own run.
inline std::string PseudoRandom(size_t size, uint32_t seed)
{
    std::string bytes(size, '\0');
    for (char& c : bytes) {
        seed = seed * 1103515245u + 12345u;
        c = static_cast<char>(seed >> 23);
    }
    return bytes;
}

}  // namespace testsupport
