#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include <boost/json/value.hpp>

#include "core/command_table.h"
#include "core/json_reader.h"
#include "tests/fuzz/check.h"
#include "tests/fuzz/plain_number.h"
#include "tests/fuzz/reference_json.h"

namespace corvane {

/// What can be told of the answer to one line, by another reader of JSON and the rules for requests
/// in the order in which they are checked. Of what handlers answer it knows those of "guest-sync",
/// "guest-sync-delimited" and "guest-ping", and of "echo", which gives its arguments back. The line
/// and the commands are borrowed.
class ExpectedAnswer {
 public:
    ExpectedAnswer(std::string_view line, std::span<const Command> commands)
        : line_(line), request_(referenceReading(line)) {
        refusal_ = refusalBy(commands);
    }

    /// Whether there is none: an "execute" that is not a string ends the agent.
    [[nodiscard]] bool endsAgent() const noexcept { return endsAgent_; }

    /// Checks what the agent has answered, the line feed left out. Returns what it returns, null
    /// when that is an error.
    [[nodiscard]] boost::json::value checkAnswer(std::string_view answer) const {
        const bool marked = answer.starts_with('\xFF');
        answer.remove_prefix(marked ? 1 : 0);
        const auto value = referenceReading(answer);
        check(value && value->is_object() && value->get_object().size() == 1,
              "an answer is an object with one member");
        const auto& [kind, content] = *value->get_object().begin();
        const bool succeeds = kind == "return";
        check(marked == (succeeds && command_ == "guest-sync-delimited"),
              "the byte 0xFF stands before what guest-sync-delimited returns and nothing else");
        if (succeeds) {
            checkResult(content, answer);
            return content;
        }
        check(kind == "error" && content.is_object(), "it returns or is an error");
        checkError(content.get_object());
        return nullptr;
    }

 private:
    struct Refusal {
        std::string errorClass;
        std::string description;
    };

    static Refusal generalError(std::string description) {
        return {"GenericError", std::move(description)};
    }

    /// Why no handler is asked. Notes the command, and whether the agent ends.
    std::optional<Refusal> refusalBy(std::span<const Command> commands) {
        if (!request_) {
            return generalError("invalid JSON");
        }
        if (!request_->is_object()) {
            return generalError("request is not a dictionary");
        }
        const boost::json::value* execute = request_->get_object().if_contains("execute");
        if (execute == nullptr) {
            return generalError("cannot find 'execute' key");
        }
        const boost::json::value* arguments = request_->get_object().if_contains("arguments");
        if (arguments != nullptr && !arguments->is_object()) {
            return generalError("arguments is not a dictionary");
        }
        endsAgent_ = !execute->is_string();
        if (endsAgent_) {
            return std::nullopt;
        }
        command_ = std::string(execute->get_string());
        if (std::ranges::find(commands, command_, &Command::name) == commands.end()) {
            return Refusal{"CommandNotFound", "Invalid command '" + command_ + "'"};
        }
        return std::nullopt;
    }

    /// What stands under `key` in the arguments, null when there is nothing.
    [[nodiscard]] const boost::json::value* argument(std::string_view key) const {
        const boost::json::value* arguments = request_->get_object().if_contains("arguments");
        return arguments == nullptr ? nullptr : arguments->get_object().if_contains(key);
    }

    [[nodiscard]] bool isSync() const {
        return command_ == "guest-sync" || command_ == "guest-sync-delimited";
    }

    void checkError(const boost::json::object& error) const {
        check(error.size() == 2, "an error has a class and a description");
        const boost::json::value* errorClass = error.if_contains("class");
        const boost::json::value* description = error.if_contains("desc");
        check(errorClass != nullptr && errorClass->is_string() && description != nullptr &&
                  description->is_string() && !description->get_string().empty(),
              "both are texts");
        if (refusal_) {
            check(errorClass->get_string() == refusal_->errorClass &&
                      description->get_string() == refusal_->description,
                  "a request that reaches no command is refused for its own fault");
            return;
        }
        check(errorClass->get_string() == "GenericError", "a command's error is the general one");
        check(description->get_string() != "invalid JSON", "it is not for JSON that is valid");
        check(command_ != "guest-ping" && command_ != "echo", "what cannot fail does not");
        if (isSync()) {
            checkSyncError(description->get_string());
        }
    }

    void checkSyncError(std::string_view description) const {
        const bool hasArguments = request_->get_object().contains("arguments");
        const boost::json::value* id = argument("id");
        check(id == nullptr || !(id->is_number() || id->is_bool()), "an id is taken");
        check(description == (hasArguments ? "id is not a number" : "missing arguments"),
              "an error says what is wrong with the id");
    }

    void checkResult(const boost::json::value& result, std::string_view answer) const {
        check(!refusal_, "what reaches no command returns nothing");
        if (isSync()) {
            const boost::json::value* id = argument("id");
            check(id != nullptr, "there is an id to give back");
            checkId(result, *id);
        } else if (command_ == "guest-ping") {
            check(result.is_object() && result.get_object().empty(), "a ping returns nothing");
        } else if (command_ == "echo") {
            checkEcho(answer);
        }
    }

    /// The id's integer part modulo 2^64. Where the other reader has only a double, it is that of
    /// one of the line's numbers.
    void checkId(const boost::json::value& returned, const boost::json::value& id) const {
        boost::json::error_code error;
        const auto bits = returned.to_number<std::uint64_t>(error);
        check(!error, "an id comes back as a number without a sign");
        if (id.is_double()) {
            const auto numbers = numbersIn(line_);
            check(std::ranges::any_of(numbers,
                                      [bits](std::string_view text) {
                                          return PlainNumber(text).integerBits == bits;
                                      }),
                  "the id that comes back is one of the line's");
            return;
        }
        const std::uint64_t expected = id.is_bool()    ? std::uint64_t{id.get_bool()}
                                       : id.is_int64() ? static_cast<std::uint64_t>(id.get_int64())
                                                       : id.get_uint64();
        check(bits == expected, "the id that comes back is the one that was sent");
    }

    void checkEcho(std::string_view answer) const {
        RequestLine line;
        line.push_back(InputSlice::copyOf(answer));
        const JsonOutcome outcome = readJson(std::move(line));
        const auto* value = std::get_if<JsonValue>(&outcome);
        check(value != nullptr, "our reader takes it, too");
        const boost::json::value* arguments = request_->get_object().if_contains("arguments");
        compare(*value->object()->find("return"),
                arguments == nullptr ? boost::json::value() : *arguments);
    }

    std::string_view line_;
    std::optional<boost::json::value> request_;
    std::string command_;
    bool endsAgent_ = false;
    std::optional<Refusal> refusal_;
};

}  // namespace corvane
