// Sequences of operations on texts and byte blocks, each step against what its header says, on std::string.
//
// Input: taken apart by FuzzedDataProvider. Texts are of ASCII characters without the zero byte.
#include <fuzzer/FuzzedDataProvider.h>
#include <strings.h>

#include <cctype>

#include "Fuzz.h"
#include "Server/Common_Classes/UText.h"

namespace {

constexpr std::uint32_t kLocalSize = 16;
constexpr std::size_t kAnyLength = 1 << 20;  // beyond what an input can make

// Of one step; every operation takes what it needs.
struct Arguments {
    explicit Arguments(FuzzedDataProvider& input)
        : s(text(input)), t(text(input)), n(number(input)), m(number(input)), flag(input.ConsumeBool()) {}

    static std::string text(FuzzedDataProvider& input) {
        std::string text = input.ConsumeRandomLengthString();
        for (char& c : text)
            c = static_cast<char>(c & 0x7F);
        return text.c_str();
    }
    // Mostly small, now and then the greatest there is.
    static std::uint32_t number(FuzzedDataProvider& input) {
        const auto n = input.ConsumeIntegral<std::uint8_t>();
        return n == 255 ? UINT32_MAX : n;
    }
    char character() const { return s.empty() ? ' ' : s[0]; }

    const std::string s, t;
    const std::uint32_t n, m;
    const bool flag;
};

std::string upper(std::string text) {
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

int sign(int n) {
    return (n > 0) - (n < 0);
}

// A text that holds up to room characters, and what it should be.
struct Subject {
    CText& text;
    const std::size_t room;
    std::string model = "";

    // A change that does not fit does not happen.
    void set(const std::string& changed) {
        if (changed.size() <= room) model = changed;
    }
    // Of characters appended to an empty text, what fits is stored.
    void append(const std::string& end) { set(model.empty() ? end.substr(0, room) : model + end); }

    void trim(const std::string& set, bool atEnd) {
        if (atEnd) {
            model.erase(model.find_last_not_of(set) + 1);
        } else {
            model.erase(0, model.find_first_not_of(set));
        }
    }

    // only: the number of the match that is replaced, from 1; 0 for all
    void replace(const Arguments& a, std::uint32_t only) {
        const std::string hay = a.flag ? model : upper(model), needle = a.flag ? a.s : upper(a.s);
        if (needle.empty()) return;
        std::string result;
        std::size_t done = 0;
        std::uint32_t number = 0;
        for (std::size_t at; (at = hay.find(needle, done)) != std::string::npos; done = at + needle.size()) {
            result += model.substr(done, at - done);
            result += only == 0 || ++number == only ? a.t : model.substr(at, needle.size());
        }
        set(result + model.substr(done));
    }
};

constexpr void (*kOperations[])(Subject&, const Arguments&) = {
    [](Subject& x, const Arguments& a) {
        x.text = a.s.c_str();
        x.model = a.s.substr(0, x.room);
    },
    [](Subject& x, const Arguments& a) {
        x.text = CText(a.s.c_str());
        x.set(a.s);
    },
    [](Subject& x, const Arguments& a) {
        const std::size_t from = std::min<std::size_t>(a.n, x.model.size());
        x.text = x.text.GetTextEx() + from;  // its own end
        x.model.erase(0, from);
    },
    [](Subject& x, const Arguments& a) {
        x.text += a.s.c_str();
        x.append(a.s);
    },
    [](Subject& x, const Arguments& a) {
        x.text += CText(a.s.c_str());
        x.set(x.model + a.s);
    },
    [](Subject& x, const Arguments& a) {
        x.text += a.character();
        x.set(x.model + a.character());
    },
    [](Subject& x, const Arguments&) {
        x.text += x.text;
        x.set(x.model + x.model);
    },
    [](Subject& x, const Arguments& a) {
        x.text.AppendFormat("%s,%u", a.s.c_str(), a.n);
        x.append(a.s + "," + std::to_string(a.n));
    },
    [](Subject& x, const Arguments& a) {
        x.text.ReplaceText(a.n, a.m, a.t.c_str());
        x.set(std::string(x.model).replace(std::min<std::size_t>(a.n, x.model.size()), a.m, a.t));
    },
    [](Subject& x, const Arguments& a) {
        x.text.ReplaceAll(a.s.c_str(), a.t.c_str(), a.flag);
        x.replace(a, 0);
    },
    [](Subject& x, const Arguments& a) {
        x.text.ReplaceOccurrence(a.s.c_str(), a.t.c_str(), a.n, a.flag);
        if (a.n != 0) x.replace(a, a.n);
    },
    [](Subject& x, const Arguments& a) {
        x.text.TrimWhiteSpaces(a.flag);
        x.trim(" \n\r\t", a.flag);
    },
    [](Subject& x, const Arguments& a) {
        x.text.Trim(a.character(), !a.flag);
        x.trim(std::string(1, a.character()), a.flag);
    },
    [](Subject& x, const Arguments& a) {
        const auto goes = [&](char c) { return (a.s.find(c) != std::string::npos) == a.flag; };
        x.text.Filter(a.s.c_str(), a.flag);
        if (!a.s.empty()) x.model.erase(std::remove_if(x.model.begin(), x.model.end(), goes), x.model.end());
    },
    [](Subject& x, const Arguments& a) {
        const std::size_t width = a.n & 0xFF;
        const std::string gap(width - std::min(width, x.model.size()), a.character());
        x.text.Pad(a.character(), static_cast<std::uint32_t>(width), a.flag);
        x.set(a.flag ? x.model + gap : gap + x.model);
    },
    [](Subject& x, const Arguments& a) {
        const auto n = static_cast<std::uint32_t>(std::min<std::size_t>(a.n, x.model.size()));
        x.text.SetUsableDataSize(n);
        x.model.resize(n);
        x.text.SetBufferSize(n + 1 + (a.m & 0xFF));
    },
    [](Subject& x, const Arguments&) {
        x.text.Reverse();
        x.text.UpperCase();
        x.model = upper(std::string(x.model.rbegin(), x.model.rend()));
    },
};

// What a text tells of itself.
void checkText(const Subject& x, const Arguments& a) {
    const std::string& model = x.model;
    assert(x.text.Length() == model.size() && x.text.GetTextEx() == model);
    CText part;
    x.text.Mid(part, a.n, a.m);
    assert(part.GetTextEx() == (a.n < model.size() ? model.substr(a.n, a.m) : ""));
    x.text.Right(part, a.m);
    assert(part.GetTextEx() == model.substr(model.size() - std::min<std::size_t>(a.m, model.size())));

    const int order = sign(strcasecmp(model.c_str(), a.s.c_str()));
    assert(sign(x.text.Compare(a.s.c_str())) == order && (x.text == CText(a.s.c_str())) == (order == 0));

    const std::size_t found = a.s.empty() ? std::string::npos : model.find(a.s, a.n);
    assert(x.text.Pos(a.s.c_str(), a.n, true) == static_cast<std::uint32_t>(found));
    if (a.n == UINT32_MAX) return;  // no place for the search backward
    const bool canEnd = !a.s.empty() && a.s.size() <= a.n + std::size_t{1};
    const std::size_t last = canEnd ? model.rfind(a.s, a.n + 1 - a.s.size()) : std::string::npos;
    assert(x.text.Pos(a.s.c_str(), a.n, false) == static_cast<std::uint32_t>(last));
}

void checkData(CData& data, std::string& model, const Arguments& a) {
    const auto size = static_cast<std::uint32_t>(a.s.size());
    const std::size_t at = std::min<std::size_t>(a.n, model.size());
    CData part;
    data.Copy(part, a.n, a.m);
    const std::string expected = model.substr(at, a.m);
    assert(part.Equals(expected.data(), static_cast<std::uint32_t>(expected.size())));
    if (a.flag) {
        data.Replace(a.n, a.m, a.s.data(), size);
        model.replace(at, a.m, a.s);
    } else {  // into itself
        data.Replace(a.n, a.m, data);
        model.replace(at, a.m, std::string(model));
    }
    assert(data.Equals(model.data(), static_cast<std::uint32_t>(model.size())));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    CText text;
    CTextLocal<kLocalSize> local;
    Subject subjects[] = {{text, kAnyLength}, {local, kLocalSize - 1}};
    CData block;
    std::string blockModel;
    for (int steps = 0; input.remaining_bytes() > 0 && steps < 64; ++steps) {
        const auto operation = input.PickValueInArray(kOperations);
        const Arguments arguments(input);
        for (Subject& subject : subjects) {
            if (subject.model.size() > 4096) continue;  // doubled too often
            operation(subject, arguments);
            checkText(subject, arguments);
        }
        if (blockModel.size() <= 4096) checkData(block, blockModel, arguments);
    }
    return 0;
}
