#include "output.hpp"

#include <cstdio>
#include <string>

#include "ubus/json.hpp"
#include "ubus/wire.hpp"

namespace ubus_cli {

namespace {
void write_out(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}
}  // namespace

void print_event(std::string_view name, ubus::Bytes data) {
    std::string line = "{ \"";
    line.append(name);
    line += "\": ";
    ubus::json_format_list(line, data, false);
    line += " }\n";
    write_out(line);
}

void print_reply(ubus::Bytes data, bool compact) {
    std::string text;
    ubus::json_format_list(text, data, false, compact ? ubus::JsonFormat{} : ubus::JsonFormat::indented());
    text += '\n';
    write_out(text);
}

void print_registration_error(std::string_view what, int status) {
    std::fprintf(stderr, "Error while registering for event '%.*s': %s\n", static_cast<int>(what.size()),
                 what.data(), ubus::status_text(status).c_str());
}

}  // namespace ubus_cli
