#include "cli/command_line.h"

#include <CLI/CLI.hpp>

namespace cli {
namespace {

template <typename Target>
Option added(CLI::App *app, const std::string &names, Target &target, const std::string &help) {
    return Option(app->add_option(names, target, help));
}

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
    return *this;
}

Option Option::existing_file() {
    option_->check(CLI::ExistingFile);
    return *this;
}

Option Option::check(const std::function<std::string(const std::string &)> &fault) {
    option_->check(fault);
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
    try {
        std::vector<std::string> reversed(words.rbegin(), words.rend());
        owned_->parse(reversed);
    } catch (const CLI::ParseError &error) {
        return owned_->exit(error);
    }
    return std::nullopt;
}

}  // namespace cli
