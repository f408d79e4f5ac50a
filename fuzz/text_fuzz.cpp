// Sequences of operations on texts and byte blocks: a text of fixed size does what one on the heap does, or
// nothing, or as much as fits; what a text tells of itself is what std::string says of the same characters.
//
// Input: taken apart by FuzzedDataProvider. Texts are of ASCII characters without the zero byte.
#include <fuzzer/FuzzedDataProvider.h>
#include <strings.h>

#include "Fuzz.h"
#include "Server/Common_Classes/UText.h"

namespace {

constexpr std::uint32_t kLocalSize = 16;
constexpr std::uint32_t kLongest = 4096;  // what has been doubled too often rests

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

int sign(int n) {
    return (n > 0) - (n < 0);
}

std::uint32_t lengthUpTo(std::uint32_t n, const CText& text) {
    return std::min(n, text.Length());
}

constexpr void (*kOperations[])(CText&, const Arguments&) = {
    [](CText& text, const Arguments& a) { text = a.s.c_str(); },
    [](CText& text, const Arguments& a) { text = CText(a.s.c_str()); },
    [](CText& text, const Arguments& a) { text = text.GetTextEx() + lengthUpTo(a.n, text); },  // its own end
    [](CText& text, const Arguments& a) { text += a.s.c_str(); },
    [](CText& text, const Arguments& a) { text += CText(a.s.c_str()); },
    [](CText& text, const Arguments& a) { text += a.character(); },
    [](CText& text, const Arguments&) { text += text; },
    [](CText& text, const Arguments& a) { text.AppendFormat("%s,%u", a.s.c_str(), a.n); },
    [](CText& text, const Arguments& a) { text.ReplaceText(a.n, a.m, a.t.c_str()); },
    [](CText& text, const Arguments& a) { text.ReplaceAll(a.s.c_str(), a.t.c_str(), a.flag); },
    [](CText& text, const Arguments& a) { text.ReplaceOccurrence(a.s.c_str(), a.t.c_str(), a.n, a.flag); },
    [](CText& text, const Arguments& a) { text.TrimWhiteSpaces(a.flag); },
    [](CText& text, const Arguments& a) { text.Trim(a.character(), !a.flag); },
    [](CText& text, const Arguments& a) { text.Filter(a.s.c_str(), a.flag); },
    [](CText& text, const Arguments& a) { text.Pad(a.character(), a.n & 0xFF, a.flag); },
    [](CText& text, const Arguments& a) {
        const std::uint32_t n = lengthUpTo(a.n, text);
        text.SetUsableDataSize(n);
        text.SetBufferSize(n + 1 + (a.m & 0xFF));
    },
    [](CText& text, const Arguments&) {
        text.Reverse();
        text.UpperCase();
    },
};

using Operation = decltype(kOperations[0]);

// Beside a text that has room for everything.
void changeSmall(CText& text, Operation operation, const Arguments& a) {
    const std::string before = text.GetTextEx();
    CText roomy(text);
    operation(roomy, a);
    operation(text, a);
    const std::string whole = roomy.GetTextEx(), after = text.GetTextEx();
    const bool fits = whole.size() < kLocalSize;
    assert(fits ? after == whole : after == before || after == whole.substr(0, kLocalSize - 1));
}

// What a text tells of itself.
void checkText(const CText& text, const Arguments& a) {
    const std::string model = text.GetTextEx();
    assert(text.Length() == model.size());
    CText part;
    text.Mid(part, a.n, a.m);
    assert(part.GetTextEx() == (a.n < model.size() ? model.substr(a.n, a.m) : ""));
    text.Right(part, a.m);
    assert(part.GetTextEx() == model.substr(model.size() - std::min<std::size_t>(a.m, model.size())));

    const int order = sign(strcasecmp(model.c_str(), a.s.c_str()));
    assert(sign(text.Compare(a.s.c_str())) == order && (text == CText(a.s.c_str())) == (order == 0));

    for (const bool forward : {true, false}) {
        const std::uint32_t at = text.Pos(a.s.c_str(), a.n, forward);
        assert(at == CText::kNotFound || model.compare(at, a.s.size(), a.s) == 0);
    }
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
    CData block;
    std::string blockModel;
    for (int steps = 0; input.remaining_bytes() > 0 && steps < 64; ++steps) {
        const auto operation = input.PickValueInArray(kOperations);
        const Arguments arguments(input);
        if (text.Length() <= kLongest) operation(text, arguments);
        changeSmall(local, operation, arguments);
        checkText(text, arguments);
        checkText(local, arguments);
        if (blockModel.size() <= kLongest) checkData(block, blockModel, arguments);
    }
    return 0;
}
