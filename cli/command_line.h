// command_line.h -- the command lines of our programs: options, arguments, subcommands and their help.
//
// CLI11 does the work. Its headers cost eight seconds of compiling in every source that includes them; command_line.cpp
// is the only one that does.
//
//   cli::Program program("Reads dumps.", "vestra-dump", "0.1.0");
//   cli::Command info = program.add_command("info", "What a dump holds");
//   info.add("file", path, "The dump").required().type("FILE");
//   if (const std::optional<int> code = program.parse(words)) return *code == 0 ? 0 : 64;
//
// Every target must live as long as the program. Errors in the use of these operations, such as an option that is added
// twice, throw std::runtime_error. One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace cli {

// One option or positional argument. A handle: copies name the same option.
class Option {
  public:
    explicit Option(CLI::Option *option) : option_(option) {}

    Option required();
    Option type(const std::string &name);  // what help shows for the value, such as "FILE"
    Option show_default();                 // help shows the target's value as it is at this call
    Option values(int least, int most);    // how many words the option takes
    Option needs(const Option &other);     // an error without that one
    Option excludes(const Option &other);  // an error with that one

    // An error unless the value ...
    Option range(int least, int most);        // is a number in this range, the ends included
    Option range(double least, double most);  // the same; not a NaN
    Option one_of(const std::vector<std::string> &words);
    Option existing_file();
    Option check(const std::function<std::string(const std::string &)> &fault);  // has no fault: an empty text

    // What shells complete. Without these: nothing, or the words of one_of, or files after existing_file.
    Option suggest(const std::function<std::vector<std::string>()> &words);
    Option suggest_files();  // after suggest: for all values but the first

    bool given() const;  // after parsing: was it on the command line?

  private:
    CLI::Option *option_;
};

// A command or a group of options. A handle: copies name the same command.
class Command {
  public:
    explicit Command(CLI::App *app) : app_(app) {}

    // An option ("-o,--output") or a positional argument ("file") whose value goes to `target`.
    Option add(const std::string &names, std::string &target, const std::string &help);
    Option add(const std::string &names, std::vector<std::string> &target, const std::string &help);
    Option add(const std::string &names, int &target, const std::string &help);
    Option add(const std::string &names, long &target, const std::string &help);
    Option add(const std::string &names, unsigned &target, const std::string &help);
    Option add(const std::string &names, unsigned long &target, const std::string &help);
    Option add(const std::string &names, unsigned long long &target, const std::string &help);
    Option add(const std::string &names, double &target, const std::string &help);
    Option add(const std::string &names, std::optional<double> &target, const std::string &help);
    // The same with a function that parse gives the words to, if there are any. What it throws, parse throws.
    using Take = void (*)(const std::vector<std::string> &words);
    Option add(const std::string &names, Take take, const std::string &help);
    Option add_flag(const std::string &names, bool &target, const std::string &help);

    Command add_command(const std::string &name, const std::string &summary);
    void require_command();  // exactly one, else an error
    void footer(const std::string &text);
    void pass_unknown_up();  // an option unknown to a command that is added from here on is one of this command
    void on_chosen(const std::function<void()> &act);  // called by parse if the command is on the command line
    void section(const std::string &title);            // of help: options that are added from here on are under it
    bool is_program() const;                           // not a command of another one

    // Options of which at most `most` may be given; 0: any number.
    Command add_group(const std::string &name, int most);

  private:
    CLI::App *app_;
};

// As a first word, it makes `parse` print what may be the last of the words after it, for shells: a line for each with a
// tab and a description, and ":files" if it may be a file.
constexpr const char *kComplete = "--complete";

// A program's command line. --help and --version are there already.
class Program : public Command {
  public:
    Program(const std::string &description, const std::string &name, const std::string &version);
    ~Program();
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;

    // Parses the words after the program's name and sets the targets. An exit code when the program ends here: 0 after
    // help, version or completion, not 0 after an error, which is printed.
    std::optional<int> parse(const std::vector<std::string> &words);
    std::optional<int> parse(int argc, char **argv) { return parse({argv + (argc > 0 ? 1 : 0), argv + argc}); }

  private:
    explicit Program(std::unique_ptr<CLI::App> app);
    std::unique_ptr<CLI::App> owned_;
};

}  // namespace cli
