#include "host/AgentLibrary.h"

#include <dlfcn.h>
#include <filesystem>

#include <fmt/format.h>

namespace host {

platform::AgentFactory * agentFactoryLoad( const std::string & path, std::string * why ) {
   // Without a "/" the loader would search its own directories instead.
   std::error_code ignored;
   const auto absolute = std::filesystem::absolute( path, ignored ).string();
   void * library = dlopen( absolute.c_str(), RTLD_NOW | RTLD_LOCAL );
   if ( !library ) {
      *why = fmt::format( "cannot load the agent library: {}", dlerror() );
      return nullptr;
   }
   void * factory = dlsym( library, platform::agentFactorySymbol );
   if ( !factory ) {
      *why = fmt::format(
            "{} is no agent library: it does not export {}", absolute, platform::agentFactorySymbol );
      return nullptr;
   }
   return reinterpret_cast<platform::AgentFactory *>( factory );
}

} // namespace host
