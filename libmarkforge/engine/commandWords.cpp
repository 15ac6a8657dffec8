// markforge::commandWords: the splitter, one character at a time.
#include "commandWords.h"

#include <cstring>

namespace markforge {
namespace {

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\n';
}

class splitter {
public:
    explicit splitter(const std::string& text) : _text(text) {}

    bool Split(std::vector<std::string>& words, std::string& reason)
    {
        while (_at < _text.size()) {
            const char c = _text[_at++];
            if (IsBlank(c)) {
                EndWord(words);
            } else if (c == '\'') {
                if (!SingleQuoted(reason)) return false;
            } else if (c == '"') {
                if (!DoubleQuoted(reason)) return false;
            } else if (c == '\\') {
                if (!Escaped(reason)) return false;
            } else {
                Add(c);
            }
        }
        EndWord(words);
        if (words.empty()) reason = "the command is empty";
        return !words.empty();
    }

private:
    void Add(char c)
    {
        _word += c;
        _inWord = true;
    }

    void EndWord(std::vector<std::string>& words)
    {
        if (_inWord) words.push_back(_word);
        _word.clear();
        _inWord = false;
    }

    bool SingleQuoted(std::string& reason)
    {
        _inWord = true;
        const size_t end = _text.find('\'', _at);
        if (end == std::string::npos) {
            reason = "the command has a ' without its closing '";
            return false;
        }
        _word += _text.substr(_at, end - _at);
        _at = end + 1;
        return true;
    }

    bool DoubleQuoted(std::string& reason)
    {
        _inWord = true;
        while (_at < _text.size()) {
            const char c = _text[_at++];
            if (c == '"') return true;
            if (c == '\\' && _at < _text.size() && _text[_at] != '\0' && std::strchr("\"\\$`", _text[_at]))
                _word += _text[_at++];
            else
                _word += c;
        }
        reason = "the command has a \" without its closing \"";
        return false;
    }

    bool Escaped(std::string& reason)
    {
        if (_at == _text.size()) {
            reason = "the command ends in a backslash";
            return false;
        }
        Add(_text[_at++]);
        return true;
    }

    const std::string& _text;
    size_t _at = 0;
    std::string _word;
    bool _inWord = false;
};

}  // namespace

bool SplitCommandWords(const std::string& text, std::vector<std::string>& words, std::string& reason)
{
    words.clear();
    if (splitter(text).Split(words, reason)) return true;
    words.clear();
    return false;
}

}  // namespace markforge
