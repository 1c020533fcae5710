// scan_profile.cpp - scans files through a profile of the profile runtime.
// Usage: scan_profile CONFIG PROFILE FILE...   (PROFILE "" for the default one)
// Exit status: 0 all clean, 1 something found, 2 an error.
#include <cstring>
#include <iostream>
#include <memory>

#include <mavprofile.h>

int main(int argc, char** argv) {
    if (argc < 4) {
        std::cerr << "usage: " << argv[0] << " CONFIG PROFILE FILE...\n";
        return 2;
    }
    // A configuration file name, or properties text.
    MAV_RC rc = MavStartRuntime(argv[1], std::strlen(argv[1]));
    if (rc != MAV_OK) {
        std::cerr << "MavStartRuntime: " << MavErrorDescription(rc) << "\n";
        return 2;
    }
    int status = 0;
    {
        std::unique_ptr<mav::MavInstance> scanner = mav::MavInstance::createInstance(argv[2]);
        if (!scanner || scanner->getCInstances().empty()) {
            // Without any C instance a scan would find everything clean.
            std::cerr << "profile \"" << argv[2] << "\" has no usable adapter\n";
            scanner.reset();
            MavStopRuntime();
            return 2;
        }
        for (int i = 3; i < argc; ++i) {
            try {
                scanner->scan(argv[i]);
                std::cout << argv[i] << ": OK\n";
            } catch (const mav::MavCInfectionException& e) {
                std::cout << argv[i] << ": " << e.getText() << " FOUND\n";
                if (status == 0) status = 1;
            } catch (const mav::MavCException& e) {
                std::cout << argv[i] << ": ERROR " << e.what() << "\n";
                status = 2;
            }
        }
    }  // the scanner returns its instances before the runtime stops
    MavStopRuntime();
    return status;
}
