#include "core/identity/core_product.h"

#include <utility>

#include "core/memory/core_neverdestroyed.h"

namespace NS_CORE {
namespace {

std::string& storedIdentifier() {
    // Never destroyed: exit handlers may still ask.
    static NeverDestroyed<std::string> identifier;
    return *identifier;
}

} // namespace

void setProductIdentifier(std::string identifier) {
    storedIdentifier() = std::move(identifier);
}

const std::string& productIdentifier() {
    return storedIdentifier();
}

} // namespace NS_CORE
