#include "cli/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iostream>
#include <map>
#include <set>

namespace cli {
namespace {

template <typename Target>
Option added(CLI::App *app, const std::string &names, Target &target, const std::string &help) {
    return Option(app->add_option(names, target, help));
}

struct Suggestions {
    std::function<std::vector<std::string>()> words;
    bool files = false;
};

std::map<const CLI::Option *, Suggestions> &suggestions() {
    static std::map<const CLI::Option *, Suggestions> all;
    return all;
}

// What the last of the words may be. Bash makes a word of "=" between an option and its value.
class Completion {
  public:
    Completion(const CLI::App *program, const std::vector<std::string> &words) : command_(program) {
        if (words.empty()) return;
        const bool program_follows = std::find(words.begin(), words.end() - 1, "--") != words.end() - 1;
        if (program_follows) {
            files_ = true;
            return;
        }
        std::for_each(words.begin(), words.end() - 1, [this](const std::string &word) { pass(word); });
        if (words.back() != "=") word_ = words.back();
        const bool an_option = word_.rfind('-', 0) == 0;
        if (option_ != nullptr && !an_option) {
            offer_values(option_, values_);
            if (values_ < option_->get_items_expected_min()) return;
        }
        if (an_option) {
            offer_options();
        } else {
            offer_arguments();
        }
    }

    std::string text() const { return text_ + (files_ ? ":files\n" : ""); }

  private:
    void pass(const std::string &word) {
        if (word == "=") return;
        const bool an_option = word.rfind('-', 0) == 0 && word != "-";
        if (option_ != nullptr && !an_option) {
            if (++values_ >= option_->get_items_expected_max()) option_ = nullptr;
            return;
        }
        option_ = nullptr;
        if (an_option) {
            for (const CLI::Option *option : options()) {
                if (option->check_name(word) && option->get_items_expected_max() > 0) option_ = option;
            }
            values_ = 0;
            return;
        }
        const std::vector<const CLI::App *> below = command_->get_subcommands(nullptr);
        const auto next = std::find_if(below.begin(), below.end(),
                                       [&](const CLI::App *one) { return !word.empty() && one->get_name() == word; });
        if (next == below.end()) {
            ++arguments_;
        } else {
            command_ = *next;
            arguments_ = 0;
        }
    }

    // Those of the command, of its groups, and of the commands above that it passes unknown ones up to.
    std::vector<const CLI::Option *> options() const {
        std::vector<const CLI::Option *> all;
        for (const CLI::App *app = command_; app != nullptr;
             app = app->get_fallthrough() ? app->get_parent() : nullptr) {
            std::vector<const CLI::App *> parts =
                app->get_subcommands([](const CLI::App *one) { return one->get_name().empty(); });
            parts.insert(parts.begin(), app);
            for (const CLI::App *part : parts) {
                const std::vector<const CLI::Option *> some = part->get_options();
                all.insert(all.end(), some.begin(), some.end());
            }
        }
        return all;
    }

    void offer(const std::string &word, const std::string &description) {
        if (word.empty() || word.rfind(word_, 0) != 0 || !offered_.insert(word).second) return;
        text_ += word + "\t" + description.substr(0, description.find_first_of("\n\t")) + "\n";
    }

    void offer_options() {
        for (const CLI::Option *option : options()) {
            for (const std::string &name : option->get_lnames()) offer("--" + name, option->get_description());
            for (const std::string &name : option->get_snames()) offer("-" + name, option->get_description());
        }
    }

    void offer_arguments() {
        for (const CLI::App *below : command_->get_subcommands(nullptr)) {
            offer(below->get_name(), below->get_description());
        }
        int place = 0;
        for (const CLI::Option *option : command_->get_options()) {
            if (!option->get_positional()) continue;
            const bool last_of_many = option->get_items_expected_max() > 1 && arguments_ >= place;
            if (place == arguments_ || last_of_many) offer_values(option, 0);
            ++place;
        }
    }

    void offer_values(const CLI::Option *option, int place) {
        const auto found = suggestions().find(option);
        if (found == suggestions().end()) return;
        const auto &[words, files] = found->second;
        if (words && place == 0) {
            for (const std::string &word : words()) offer(word, "");
        } else {
            files_ = files_ || files;
        }
    }

    const CLI::App *command_;
    const CLI::Option *option_ = nullptr;  // takes more values
    int values_ = 0;                       // that it has
    int arguments_ = 0;                    // of the command, before the word
    std::string word_;
    std::string text_;
    std::set<std::string> offered_;
    bool files_ = false;
};

}  // namespace

Option Option::required() {
    option_->required();
    return *this;
}

Option Option::type(const std::string &name) {
    option_->type_name(name);
    return *this;
}

Option Option::show_default() {
    option_->capture_default_str();
    return *this;
}

Option Option::values(int least, int most) {
    option_->expected(least, most);
    return *this;
}

Option Option::needs(const Option &other) {
    option_->needs(other.option_);
    return *this;
}

Option Option::excludes(const Option &other) {
    option_->excludes(other.option_);
    return *this;
}

Option Option::range(int least, int most) {
    option_->check(CLI::Range(least, most));
    return *this;
}

Option Option::range(double least, double most) {
    const auto fault = [=](std::string &text) {  // CLI::Range would take a NaN
        double value = 0;
        const bool good = CLI::detail::lexical_cast(text, value) && value >= least && value <= most;
        return good ? "" : "expected " + CLI::detail::to_string(least) + " to " + CLI::detail::to_string(most);
    };
    option_->check(CLI::Validator(fault, "NUMBER"));
    return *this;
}

Option Option::one_of(const std::vector<std::string> &words) {
    option_->check(CLI::IsMember(words));
    return suggest([words] { return words; });
}

Option Option::existing_file() {
    option_->check(CLI::ExistingFile);
    return suggest_files();
}

Option Option::check(const std::function<std::string(const std::string &)> &fault) {
    option_->check(fault);
    return *this;
}

Option Option::suggest(const std::function<std::vector<std::string>()> &words) {
    suggestions()[option_].words = words;
    return *this;
}

Option Option::suggest_files() {
    suggestions()[option_].files = true;
    return *this;
}

bool Option::given() const {
    return option_->count() > 0;
}

Option Command::add(const std::string &names, std::string &target, const std::string &help) {
    return added(app_, names, target, help);
}

Option Command::add(const std::string &names, std::vector<std::string> &target, const std::string &help) {
    return added(app_, names, target, help);
}

Option Command::add(const std::string &names, int &target, const std::string &help) {
    return added(app_, names, target, help);
}

Option Command::add(const std::string &names, long &target, const std::string &help) {
    return added(app_, names, target, help);
}

Option Command::add(const std::string &names, unsigned &target, const std::string &help) {
    return added(app_, names, target, help);
}

Option Command::add(const std::string &names, unsigned long &target, const std::string &help) {
    return added(app_, names, target, help);
}

Option Command::add(const std::string &names, unsigned long long &target, const std::string &help) {
    return added(app_, names, target, help);
}

Option Command::add(const std::string &names, double &target, const std::string &help) {
    return added(app_, names, target, help);
}

Option Command::add(const std::string &names, std::optional<double> &target, const std::string &help) {
    return added(app_, names, target, help);
}

Option Command::add(const std::string &names, Take take, const std::string &help) {
    return Option(app_->add_option_function<std::vector<std::string>>(names, take, help));
}

Option Command::add_flag(const std::string &names, bool &target, const std::string &help) {
    return Option(app_->add_flag(names, target, help));
}

Command Command::add_command(const std::string &name, const std::string &summary) {
    return Command(app_->add_subcommand(name, summary));
}

void Command::require_command() {
    app_->require_subcommand(1);
}

void Command::footer(const std::string &text) {
    app_->footer(text);
}

void Command::pass_unknown_up() {
    app_->fallthrough();
}

Command Command::add_group(const std::string &name, int most) {
    CLI::Option_group *group = app_->add_option_group(name);
    group->require_option(0, static_cast<size_t>(most));
    return Command(group);
}

void Command::on_chosen(const std::function<void()> &act) {
    app_->callback(act);
}

void Command::section(const std::string &title) {
    app_->option_defaults()->group(title);
}

bool Command::is_program() const {
    return app_->get_parent() == nullptr;
}

Program::Program(const std::string &description, const std::string &name, const std::string &version)
    : Program(std::make_unique<CLI::App>(description, name)) {
    // As programs complain about everything else.
    owned_->failure_message([](const CLI::App *app, const CLI::Error &error) {
        return app->get_name() + ": " + CLI::FailureMessage::simple(app, error);
    });
    owned_->set_version_flag("--version", name + " " + version);
}

Program::Program(std::unique_ptr<CLI::App> app) : Command(app.get()), owned_(std::move(app)) {}

Program::~Program() = default;

std::optional<int> Program::parse(const std::vector<std::string> &words) {
    if (!words.empty() && words[0] == kComplete) {
        std::cout << Completion(owned_.get(), {words.begin() + 1, words.end()}).text() << std::flush;
        return 0;
    }
    try {
        std::vector<std::string> reversed(words.rbegin(), words.rend());
        owned_->parse(reversed);
    } catch (const CLI::ParseError &error) {
        return owned_->exit(error);
    }
    return std::nullopt;
}

}  // namespace cli
