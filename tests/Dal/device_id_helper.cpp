// Prints this process's device identifiers, one "name=value" line each, as an
// application with the bundle identifier given first. Optional: "savemid <mid>".
#include "Dal/ZUBDeviceIDDal.h"
#include "Platform/Bundle.h"

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: device_id_helper <bundle id> [savemid <mid>]\n");
        return 2;
    }
    zub::Bundle::setInfoValue("CFBundleIdentifier", argv[1]);
    ZUBDeviceIDDal& dal = ZUBDeviceIDDal::getInstance();
    std::printf("idfv=%s\n", dal.getIdfv().c_str());
    std::printf("openudid=%s\n", dal.getOpenUDID().c_str());
    std::printf("mid=%s\n", dal.getMID().c_str());
    if (argc >= 4 && std::string(argv[2]) == "savemid") {
        dal.saveMID(std::string(argv[3]));
        std::printf("saved=%s\n", dal.getMID().c_str());
    }
    std::fflush(stdout);
    return 0;
}
