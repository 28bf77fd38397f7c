// Host probes of ZUBProHelper.
#include "Common/ZUBProHelper.h"

#include "Platform/Bundle.h"

std::string ZUBProHelper::getCompanyDomain() {
    const std::string identifier = zub::Bundle::identifier().value_or("");
    const auto dot = identifier.rfind('.');
    return dot == std::string::npos ? identifier : identifier.substr(0, dot);
}
