#include "common/Completion.h"

#include <iostream>
#include <set>

#include "common/Text.h"

namespace {

using Words = std::vector<std::string>;

bool isOption(const std::string& word) {
    return word.size() > 1 && word[0] == '-';
}

bool takesFileName(const CLI::Option& option) {
    const std::string type = option.get_type_name();
    return type == "PATH" || type == "FILE" || type == "DIR";
}

// How far a command line has come.
class Progress {
  public:
    explicit Progress(CLI::App& app) : command_(&app) {}

    void pass(const std::string& word) {
        if (awaiting_ != nullptr) return take(word);
        if (isOption(word)) return passOption(word);
        for (CLI::App* command : command_->get_subcommands({})) {
            if (!command->check_name(word)) continue;
            command_ = command;
            return;
        }
        arguments_.push_back(word);
    }

    // What the next word may be when it begins so; nothing for a file's name.
    std::optional<Words> next(const std::string& begin, const ArgumentWords& wordsFor) {
        const std::size_t equals = begin.find('=');
        if (isOption(begin) && equals != std::string::npos) passOption(begin.substr(0, equals));
        if (awaiting_ != nullptr) {
            if (takesFileName(*awaiting_)) return std::nullopt;
            return Words{};
        }
        if (!begin.empty() && begin[0] == '-') return optionNames();
        Words words;
        for (const CLI::App* command : command_->get_subcommands({}))
            words.push_back(command->get_name());
        const auto arguments =
            command_->get_options([](const CLI::Option* option) { return option->get_positional(); });
        if (arguments_.size() < arguments.size() && wordsFor)
            words = wordsFor(*command_, arguments[arguments_.size()]->get_name(), arguments_);
        return words;
    }

  private:
    // "--option", "--option=value", or the like of a command above: those stand behind the command's name, too.
    void passOption(const std::string& word) {
        const std::size_t equals = word.find('=');
        for (CLI::App* command = command_; command != nullptr; command = command->get_parent()) {
            CLI::Option* option = command->get_option_no_throw(word.substr(0, equals));
            if (option == nullptr) continue;
            if (option->get_items_expected_max() > 0) awaiting_ = option;
            break;
        }
        if (awaiting_ != nullptr && equals != std::string::npos) take(word.substr(equals + 1));
    }

    void take(const std::string& value) {
        try {
            awaiting_->add_result(value);
            awaiting_->run_callback();
        } catch (const CLI::Error&) {  // the run will tell; what follows can be completed all the same
        }
        awaiting_ = nullptr;
    }

    Words optionNames() const {
        std::set<std::string> names;  // --help is every command's
        for (CLI::App* command = command_; command != nullptr; command = command->get_parent()) {
            for (const CLI::Option* option : command->get_options()) {
                for (const std::string& name : option->get_snames())
                    names.insert("-" + name);
                for (const std::string& name : option->get_lnames())
                    names.insert("--" + name);
            }
        }
        return {names.begin(), names.end()};
    }

    CLI::App* command_;
    CLI::Option* awaiting_ = nullptr;  // its value comes next
    Words arguments_;                  // of the command, so far
};

}  // namespace

std::optional<int> complete(CLI::App& app, int argc, const char* const* argv, const ArgumentWords& wordsFor) {
    if (argc < 2 || std::string(argv[1]) != "--complete") return std::nullopt;
    Progress progress(app);
    for (int i = 2; i < argc - 1; ++i)
        progress.pass(argv[i]);
    const std::string begin = argc > 2 ? argv[argc - 1] : "";
    const auto words = progress.next(begin, wordsFor);
    if (!words) return 1;
    for (const std::string& word : *words) {
        if (startsWithIgnoringCase(word, begin) && !hasControlCharacter(word)) std::cout << word << '\n';
    }
    return 0;
}
