// What the example programs do alike around their commands.
#include "common/program.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <new>
#include <nlohmann/json.hpp>

#include "common/platform.h"
#include "common/text.h"

namespace app {

int run_program(CLI::App &program, int argc, char **argv, const std::function<int()> &command) {
    const std::string name = program.get_name() + ": ";
    try {
        std::vector<std::string> arguments = utf8_arguments(argc, argv);
        std::reverse(arguments.begin(), arguments.end()); // the parser takes them from the back
        program.parse(arguments);
        return command();
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0) return program.exit(error); // --help
        say(name + error.what() + " (--help tells more)");
        return 2;
    } catch (const usage_error &error) {
        say(name + error.what() + " (--help tells more)");
        return 2;
    } catch (const std::bad_alloc &) {
        say(name + "out of memory");
        return 1;
    } catch (const std::exception &error) {
        say(name + error.what());
        return 1;
    }
}

void print_json(const nlohmann::ordered_json &object) {
    // A name that came from outside may be no UTF-8.
    std::printf("%s\n",
                object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace).c_str());
    std::fflush(stdout);
}

int print_key(const directory &store, bool json) {
    identity self;
    store.load_identity(self);
    const std::string key = key_text(self.keys.public_key);
    const std::string code = key_code(self.keys.public_key);
    if (json) {
        print_json({{"key", key}, {"key_code", code}});
    } else {
        std::printf("%s\n", key.c_str());
        say("key code " + code);
    }
    return 0;
}

} // namespace app
