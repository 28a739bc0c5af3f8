#include "search/grep_family.hpp"

#include "platform/home.hpp"
#include "search/grep_engine.hpp"

namespace kx::search {

void register_grep(lang::Registry& registry, std::shared_ptr<kst::StoreSet> stores) {
  auto engine = std::make_shared<GrepEngine>(stores, platform::main_config_file());
  registry.add_word_command(lang::WordCommand{
      "grep", "search file texts with a regular expression, in RAM for enrolled trees",
      "grep [flags] <pattern> [dir|file|glob ...]", "grep -n \"TODO|FIXME\" src",
      [engine](lang::Session& session, std::string_view args) {
        try {
          return engine->run(session, args);
        } catch (const std::exception& e) {
          return std::string("ERROR: grep failed: ") + e.what();
        }
      }});
}

}  // namespace kx::search
