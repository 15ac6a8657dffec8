// Fuzz target: what `markforge build` reads from its command line — a
// NAME=FILE word, and the whole input as a --signing-helper command — and
// what the key-directory plug-in makes of a folder argument and a key name.
// The input is split at its first newline into the word and the name; the
// name also serves as the folder.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "commandWords.h"
#include "componentWord.h"
#include "markforgePlugin.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t newline = input.find('\n');
    const std::string word = input.substr(0, newline);
    const std::string name = newline == std::string::npos ? std::string() : input.substr(newline + 1);

    markforge::componentWord component;
    std::string reason;
    if (component.Parse(word, reason)) {
        // A parsed word always names a component the record can carry.
        if (component.name.empty() || component.name.size() > markforge::componentWord::MAX_NAME ||
            component.path.empty())
            __builtin_trap();
    }

    // A split command has words, and no word is longer than the text.
    std::vector<std::string> words;
    if (markforge::SplitCommandWords(input, words, reason)) {
        if (words.empty()) __builtin_trap();
        for (const std::string& split : words)
            if (split.size() > input.size()) __builtin_trap();
    } else if (!words.empty()) {
        __builtin_trap();
    }

    markforgeRegistryRecord registry = {};
    if (markforge_plugin_init(&registry, name.c_str()) != 0) return 0;
    char** names = registry.mfPluginKeynameGenerator(name.c_str(), true);
    if (!names) return 0;
    // An accepted name never leaves the folder.
    const char* cut = name.c_str();
    if (!*cut || *cut == '.' || std::strchr(cut, '/')) __builtin_trap();
    for (char** entry = names; *entry; ++entry) delete[] *entry;
    delete[] names;
    return 0;
}
