#include "frame.h"

#include "output.h"

/// The one that the service, or the platform, is in now. All of it happens on the thread of
/// service_app_main().
static Frame *innermost;

Frame::Frame(Kind which, std::string function, const char *argument_names,
             std::vector<Shown> arguments_before)
    : kind(which), name(std::move(function)), names(argument_names), arguments(std::move(arguments_before)),
      code(which == Kind::call ? take_failure(name) : std::nullopt), outer(innermost),
      depth(outer == nullptr ? 0 : outer->depth + 1)
{
    innermost = this;
}

void Frame::end(std::vector<Shown> arguments_after, std::optional<Shown> yielded)
{
    const auto duration = std::chrono::steady_clock::now() - start;
    microseconds = std::chrono::duration_cast<std::chrono::microseconds>(duration).count();
    arguments = std::move(arguments_after);
    result = std::move(yielded);
}

Frame::~Frame()
{
    innermost = outer;
    if (outer != nullptr)
        outer->begin();
    if (writes_json())
        write_line(describe_for_script(is_begun ? "end" : "call"));
    else
        write_line(std::string(2 * depth, ' ') + (is_begun ? "}" : describe_call()) + describe_end());
}

/// What comes in between is to stand below it.
void Frame::begin()
{
    if (is_begun)
        return;
    is_begun = true;
    if (outer != nullptr)
        outer->begin();
    write_line(writes_json() ? describe_for_script("begin")
                             : std::string(2 * depth, ' ') + describe_call() + " {");
}

std::string Frame::describe_call() const
{
    std::string text;
    for (const Shown &argument : arguments)
        text += (text.empty() ? "" : ", ") + argument.text;
    return (kind == Kind::callback ? "callback " : "") + name + "(" + text + ")";
}

std::string Frame::describe_end() const
{
    return (result ? " = " + result->text : "") +
           (code ? "  made to fail" : "  " + std::to_string(microseconds) + " \u00b5s");
}

std::string Frame::describe_for_script(const char *event) const
{
    std::string members;
    const char *rest = names + 1;
    for (const Shown &argument : arguments) {
        const std::string member(rest, std::string(rest).find_first_of(",)"));
        members += (members.empty() ? "" : ",") + quote(member) + ":" + argument.json;
        rest += member.size() + 2;
    }
    std::string line = R"({"event":)" + quote(event) + ",\"depth\":" + std::to_string(depth) +
                       ",\"callback\":" + show(kind == Kind::callback).json + ",\"function\":" + quote(name) +
                       ",\"arguments\":{" + members + "}";
    if (event != std::string("begin"))
        line += ",\"result\":" + (result ? result->json : "null") +
                ",\"made_to_fail\":" + show(code.has_value()).json +
                ",\"us\":" + std::to_string(microseconds);
    return line + "}";
}

bool Frame::is_in_platform()
{
    return innermost != nullptr && innermost->kind == Kind::call;
}

void Frame::log(int priority, const char *tag, const std::string &message, bool is_made_to_fail)
{
    const size_t depth = innermost == nullptr ? 0 : innermost->depth + 1;
    if (innermost != nullptr)
        innermost->begin();
    if (writes_json())
        write_line(R"({"event":"log","depth":)" + std::to_string(depth) + ",\"priority\":" +
                   show(priority).json + ",\"tag\":" + show(tag).json + ",\"message\":" + quote(message) +
                   ",\"made_to_fail\":" + show(is_made_to_fail).json + "}");
    else
        write_line(std::string(2 * depth, ' ') + "log " + show(priority).text + " " + show(tag).text + " " +
                   quote(message) + (is_made_to_fail ? "  made to fail" : ""));
}
