#include "core/ClientFactory.h"

#include "core/ClientLibraryRegistry.h"

namespace KW {

ClientFactory::~ClientFactory() = default;

ClientFactory* ClientFactory::getInstance() {
    return ClientLibraryRegistry::getInstance();
}

}  // namespace KW
