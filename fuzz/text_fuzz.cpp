// Sequences of operations on texts and byte blocks, each step against what its header says, on std::string.
//
// Input: taken apart by FuzzedDataProvider. Texts are of ASCII characters without the zero byte.
#include <fuzzer/FuzzedDataProvider.h>
#include <strings.h>

#include <cctype>

#include "Fuzz.h"
#include "Server/Common_Classes/UText.h"

namespace {

// Of one step; every operation takes what it needs.
struct Arguments {
    const std::string s, t;
    const std::uint32_t n, m;
    const bool flag;

    char character() const { return s.empty() ? ' ' : s[0]; }
};

std::string takeText(FuzzedDataProvider& input) {
    std::string text = input.ConsumeRandomLengthString();
    for (char& c : text)
        c = static_cast<char>(c & 0x7F);
    return text.c_str();
}

// Mostly small, now and then the greatest there is.
std::uint32_t takeNumber(FuzzedDataProvider& input) {
    const auto n = input.ConsumeIntegral<std::uint8_t>();
    return n == 255 ? UINT32_MAX : n;
}

// A text that holds up to room characters, and what it should be.
struct Subject {
    CText& text;
    const std::size_t room;
    std::string model = "";
};

std::size_t position(std::uint32_t n, const std::string& text) {
    return std::min<std::size_t>(n, text.size());
}

std::string spliced(std::string text, const Arguments& a, const std::string& with) {
    return text.replace(position(a.n, text), a.m, a.flag ? with : std::string(text));
}

// Of characters appended to an empty text, what fits is stored.
std::string appended(const Subject& x, const std::string& end) {
    return x.model.empty() ? end.substr(0, x.room) : x.model + end;
}

std::string upper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::toupper(c); });
    return text;
}

std::string trimmed(const std::string& text, const std::string& set, bool atEnd) {
    if (atEnd) return text.substr(0, text.find_last_not_of(set) + 1);
    return text.substr(std::min(text.find_first_not_of(set), text.size()));
}

std::string filtered(std::string text, const Arguments& a) {
    const auto goes = [&](char c) { return (a.s.find(c) != std::string::npos) == a.flag; };
    if (!a.s.empty()) text.erase(std::remove_if(text.begin(), text.end(), goes), text.end());
    return text;
}

std::string padded(const std::string& text, const Arguments& a) {
    const std::string gap((a.n & 0xFF) - position(a.n & 0xFF, text), a.character());
    return a.flag ? text + gap : gap + text;
}

// only: the number of the match that is replaced, from 1; 0 for all
std::string replaced(const std::string& text, const Arguments& a, std::uint32_t only) {
    const std::string hay = a.flag ? text : upper(text), needle = a.flag ? a.s : upper(a.s);
    if (needle.empty()) return text;
    std::string result = text;
    std::uint32_t match = 0;
    for (std::size_t at = hay.find(needle); at < hay.size(); at = hay.find(needle, at + needle.size())) {
        if (only == 0 || ++match == only)
            result.replace(at + result.size() - text.size(), needle.size(), a.t);
    }
    return result;
}

// A change, and the text that it should make if that fits; else nothing changes.
constexpr struct {
    void (*change)(CText& t, const Arguments& a);
    std::string (*expected)(const Subject& x, const Arguments& a);
} kOperations[] = {
    {[](auto& t, auto& a) { t = a.s.c_str(); }, [](auto& x, auto& a) { return a.s.substr(0, x.room); }},
    {[](auto& t, auto& a) { t = CText(a.s.c_str()); }, [](auto&, auto& a) { return a.s; }},
    {[](auto& t, auto& a) { t = t.GetTextEx() + std::min(a.n, t.Length()); },  // its own end
     [](auto& x, auto& a) { return x.model.substr(position(a.n, x.model)); }},
    {[](auto& t, auto& a) { t += a.s.c_str(); }, [](auto& x, auto& a) { return appended(x, a.s); }},
    {[](auto& t, auto& a) { t += CText(a.s.c_str()); }, [](auto& x, auto& a) { return x.model + a.s; }},
    {[](auto& t, auto& a) { t += a.character(); }, [](auto& x, auto& a) { return x.model + a.character(); }},
    {[](auto& t, auto&) { t += t; }, [](auto& x, auto&) { return x.model + x.model; }},
    {[](auto& t, auto& a) { t.AppendFormat("%s,%u", a.s.c_str(), a.n); },
     [](auto& x, auto& a) { return appended(x, a.s + "," + std::to_string(a.n)); }},
    {[](auto& t, auto& a) { a.flag ? t.ReplaceText(a.n, a.m, a.t.c_str()) : t.ReplaceText(a.n, a.m, t); },
     [](auto& x, auto& a) { return spliced(x.model, a, a.t); }},
    {[](auto& t, auto& a) { t.ReplaceAll(a.s.c_str(), a.t.c_str(), a.flag); },
     [](auto& x, auto& a) { return replaced(x.model, a, 0); }},
    {[](auto& t, auto& a) { t.ReplaceOccurrence(a.s.c_str(), a.t.c_str(), a.n, a.flag); },
     [](auto& x, auto& a) { return a.n == 0 ? x.model : replaced(x.model, a, a.n); }},
    {[](auto& t, auto& a) { t.TrimWhiteSpaces(a.flag); },
     [](auto& x, auto& a) { return trimmed(x.model, " \n\r\t", a.flag); }},
    {[](auto& t, auto& a) { t.Trim(a.character(), !a.flag); },
     [](auto& x, auto& a) { return trimmed(x.model, {a.character()}, a.flag); }},
    {[](auto& t, auto& a) { t.Filter(a.s.c_str(), a.flag); },
     [](auto& x, auto& a) { return filtered(x.model, a); }},
    {[](auto& t, auto& a) { t.Pad(a.character(), a.n & 0xFF, a.flag); },
     [](auto& x, auto& a) { return padded(x.model, a); }},
    {[](auto& t, auto& a) { t.SetBufferSize(t.SetUsableDataSize(std::min(a.n, t.Length())) + (a.m & 0xFF)); },
     [](auto& x, auto& a) { return x.model.substr(0, a.n); }},
    {[](auto& t, auto&) { t.Reverse(), t.UpperCase(); },
     [](auto& x, auto&) { return upper(std::string(x.model.rbegin(), x.model.rend())); }},
};

// What a text tells of itself.
void checkText(const CText& text, const std::string& model, const Arguments& a) {
    assert(text.Length() == model.size() && text.GetTextEx() == model);
    CText part(text);
    part.Mid(part, a.n, a.m);
    assert(part.GetTextEx() == model.substr(position(a.n, model), a.m));
    const char* s = a.s.c_str();
    const int order = strcasecmp(model.c_str(), s);
    assert((text < CText(s)) == (order < 0) && (text == CText(s)) == (order == 0));
    assert(text.CompareLeft(s) == (strncasecmp(model.c_str(), s, a.s.size()) == 0));
    const std::size_t first = position(a.n, model);
    const int firstOrder = (a.flag ? strncmp : strncasecmp)(model.c_str(), s, first);
    assert(text.FirstNEquals(s, a.n, a.flag) == (first == 0 ? model.size() == a.n : firstOrder == 0));

    const std::size_t next = *s == 0 ? std::string::npos : model.find(s, a.n);
    assert(text.Pos(s, a.n, true) == static_cast<std::uint32_t>(next));
    const bool none = *s == 0 || a.n == UINT32_MAX;  // that is no place for the search backward
    const std::size_t last = none ? std::string::npos : model.substr(0, a.n + 1).rfind(s);
    assert(text.Pos(s, a.n, false) == static_cast<std::uint32_t>(last));
}

// Splices of bytes, its own too.
void checkData(CData& data, std::string& model, const Arguments& a) {
    const auto size = [](const std::string& text) { return static_cast<std::uint32_t>(text.size()); };
    a.flag ? data.Replace(a.n, a.m, a.s.data(), size(a.s)) : data.Replace(a.n, a.m, data);
    model = spliced(model, a, a.s);
    assert(data.Equals(model.data(), size(model)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    CText text;
    CTextLocal<16> local;
    Subject subjects[] = {{text, 1 << 20}, {local, 15}};  // the first has room for all that an input makes
    CData block;
    std::string blockModel;
    // Each step may double them, and what they hold is searched again and again.
    while (input.remaining_bytes() > 0 && subjects[0].model.size() + blockModel.size() <= 16384) {
        const auto operation = input.PickValueInArray(kOperations);
        const Arguments arguments{takeText(input), takeText(input), takeNumber(input), takeNumber(input),
                                  input.ConsumeBool()};
        for (Subject& subject : subjects) {
            const std::string expected = operation.expected(subject, arguments);
            operation.change(subject.text, arguments);
            if (expected.size() <= subject.room) subject.model = expected;
            checkText(subject.text, subject.model, arguments);
        }
        checkData(block, blockModel, arguments);
    }
    return 0;
}
