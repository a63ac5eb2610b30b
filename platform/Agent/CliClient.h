#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace Agent {

enum class CliAnswer { answered, noHost, refused };

// Sends one command line to the server at `path` and hands the answer to `sink` as it
// arrives; a refusal's text goes to `refusalSink` instead. `error` says why no host answered.
CliAnswer cliCommand(const std::string& path, const std::string& line,
                     const std::function<void(std::string_view)>& sink,
                     const std::function<void(std::string_view)>& refusalSink, std::string& error);

}  // namespace Agent
