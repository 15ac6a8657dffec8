// lockbase::hexString: conversion between bytes and hexadecimal text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace lockbase {

class hexString {
public:
    // Bytes to text: two upper-case digits per byte, no separators. Never fails.
    explicit hexString(std::vector<uint8_t> in) : lineWidth(0), valid(true), bytes(std::move(in))
    {
        text = FormatBytes(bytes);
    }
    // Text to bytes. An odd length or a character other than a hexadecimal
    // digit or a space leaves the object invalid and empty.
    explicit hexString(std::string in) : lineWidth(0), valid(false) { ParseText(in); }
    ~hexString() = default;

    uint8_t lineWidth;  // characters per printed line; 0 means 128
    bool valid;
    std::string text;
    std::vector<uint8_t> bytes;

private:
    static std::string FormatBytes(const std::vector<uint8_t>& bytes);
    void ParseText(const std::string& in);
};

}  // namespace lockbase
