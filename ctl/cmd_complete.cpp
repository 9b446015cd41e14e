// What the shell's completion asks: the words that may stand where one is being typed.

#include <algorithm>

#include "backups.h"
#include "help.h"
#include "setting.h"
#include "trace_options.h"

/// Told to the shell where a file's name may stand.
static constexpr char FILES[] = ":files";

/// As often as an argument may be repeated on a command line that someone types.
static constexpr int MAX_REPEATED = 100;

/// As long as someone who types waits for a remote store.
static constexpr double STORE_SECONDS = 2;

using Words = std::vector<std::string>;

static const CLI::App *find_command(const CLI::App &parent, const std::string &name)
{
    const auto found =
        parent.get_subcommands([&](const CLI::App *command) { return command->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

static bool takes_value(const CLI::App &command, const std::string &word)
{
    const CLI::Option *option = word.starts_with("-") ? command.get_option_no_throw(word) : nullptr;
    return option != nullptr && option->get_items_expected_max() > 0;
}

static Words option_names(const std::vector<const CLI::Option *> &options)
{
    Words names;
    for (const CLI::Option *option : options)
        for (const std::string &name : option->get_lnames())
            names.push_back("--" + name);
    return names;
}

static Words command_names(const CLI::App &command)
{
    Words names;
    for (const CLI::App *subcommand : commands_of(command))
        names.push_back(subcommand->get_name());
    return names;
}

static Words backup_numbers()
{
    Words numbers;
    for (const BackupNumber number : open_store(STORE_SECONDS)->list().numbers)
        numbers.push_back(std::to_string(number));
    return numbers;
}

static Words values_of(const std::string &name)
{
    const Words names = names_of_settings();
    if (std::find(names.begin(), names.end(), name) == names.end())
        return {};
    const SettingForm form = find_setting(name).form;
    return form == SettingForm::boolean_switch || form == SettingForm::integer_switch ? Words{"true", "false"}
                                                                                      : Words{};
}

/// The words that may be the next argument of a command, after those that it has.
static Words next_argument(const CLI::App &command, const Words &arguments)
{
    Words labels;
    for (const CLI::Option *option : arguments_of(command))
        labels.insert(labels.end(),
                      static_cast<size_t>(std::min(option->get_items_expected_max(), MAX_REPEATED)),
                      option->get_name(true));
    if (arguments.size() >= labels.size())
        return {};
    const std::string &label = labels[arguments.size()];
    if (label == LABEL_ID)
        return backup_numbers();
    if (label == LABEL_FILE)
        return {FILES};
    if (label == LABEL_COMMAND)
        return command_names(*command.get_parent());
    if (label == LABEL_PAIR && arguments.size() % 2 == 1)
        return values_of(arguments.back());
    return names_of_settings();
}

/// The words as they were typed: bash breaks them at colons and equals signs, too.
static Words rejoin(const Words &pieces)
{
    Words words;
    bool goes_on = false;
    for (const std::string &piece : pieces) {
        const bool is_break = !piece.empty() && piece.find_first_not_of(":=") == std::string::npos;
        if (!words.empty() && (is_break || goes_on))
            words.back() += piece;
        else
            words.push_back(piece);
        goes_on = is_break;
    }
    return words;
}

/// Has the store be that of the command line.
static void follow_store_option(const Words &words)
{
    static constexpr std::string_view OPTION = "--store";
    for (size_t i = 0; i < words.size(); i++)
        if (words[i] == OPTION && i + 1 < words.size())
            choose_store(words[i + 1]);
        else if (words[i].starts_with(OPTION) && words[i][OPTION.size()] == '=')
            choose_store(words[i].substr(OPTION.size() + 1));
}

static void complete(const CLI::App &program, const Words &pieces)
{
    Words words = rejoin(pieces);
    const std::string typed = words.empty() ? "" : words.back();
    if (!words.empty())
        words.pop_back();
    follow_store_option(words);

    const CLI::App *command = &program;
    Words arguments;
    for (size_t i = 0; i < words.size(); i++) {
        const CLI::App *subcommand = arguments.empty() ? find_command(*command, words[i]) : nullptr;
        if (subcommand != nullptr)
            command = subcommand;
        else if (takes_value(*command, words[i]) || takes_value(program, words[i]))
            i++;
        else if (!words[i].starts_with("-"))
            arguments.push_back(words[i]);
    }

    const bool is_failure = !words.empty() && words.back() == OPTION_FAIL;
    Words candidates = is_failure ? Words(std::begin(TRACED_FUNCTIONS), std::end(TRACED_FUNCTIONS))
                       : typed.starts_with("-") ? Words()
                                                : next_argument(*command, arguments);
    const auto add = [&](const Words &more) {
        candidates.insert(candidates.end(), more.begin(), more.end());
    };
    if (arguments.empty() && !is_failure)
        add(command_names(*command));
    if (typed.starts_with("-")) {
        add(option_names(own_options_of(*command)));
        add(option_names(options_of(program)));
    }
    for (const std::string &candidate : candidates)
        if (candidate.starts_with(typed) || candidate == FILES)
            printf("%s\n", candidate.c_str());
}

void add_complete(Cli &cli)
{
    CLI::App *command = cli.app.add_subcommand("complete");
    const auto words = std::make_shared<Words>();
    command->add_option("WORD", *words);
    command->callback([&cli, words] { complete(cli.app, *words); });
}
