/* scan_c.c - scans files with one adapter through the C interface.
 * Usage: scan_c ADAPTER FILE...   (ADAPTER "" for the default adapter)
 * Exit status: 0 all clean, 1 something found, 2 an error. */
#include <stdio.h>
#include <string.h>

#include <kormomav.h>

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s ADAPTER FILE...\n", argv[0]);
        return 2;
    }
    MAV_HANDLE hdl = NULL;
    MAV_INST inst = NULL;
    MAV_RC rc = MavInit(argv[1][0] != '\0' ? argv[1] : NULL, &hdl);
    if (rc == MAV_OK) rc = MavCreateInstance(hdl, &inst);
    if (rc != MAV_OK) {
        fprintf(stderr, "cannot start the adapter: %s (%s)\n", MavErrorDescription(rc),
                MavErrorName(rc));
        MavEnd(&hdl); /* accepts a null handle and a handle whose start failed */
        return 2;
    }
    int status = 0;
    for (int i = 2; i < argc; ++i) {
        MAV_SCANINFO info;
        memset(&info, 0, sizeof info);
        info.struct_size = sizeof info;
        rc = MavScanFile(inst, argv[i], (uint32_t)i, &info);
        if (rc == MAV_OK) {
            printf("%s: OK\n", argv[i]);
        } else if (rc < 0) {
            /* Every infection of the last scan, by index. */
            char name[512];
            for (uint32_t k = 0; k < info.uiInfections || k == 0; ++k) {
                size_t len = sizeof name;
                if (MavEnumInfections(inst, k, NULL, NULL, name, &len, NULL, NULL, NULL, NULL,
                                      NULL) != MAV_OK) {
                    if (k > 0) break;
                    snprintf(name, sizeof name, "%s", MavErrorName(rc));
                }
                printf("%s: %s FOUND\n", argv[i], name);
            }
            if (status == 0) status = 1;
        } else {
            printf("%s: ERROR %s\n", argv[i], MavErrorDescription(rc));
            status = 2;
        }
    }
    MavFreeInstance(&inst);
    MavEnd(&hdl);
    return status;
}
