// kvn_nvefs_driver.cpp - a stand-in for the kvn program with only groups 4
// and 6, for the end-to-end tests to run while the program's group table does
// not list them yet. Anything else prints the full help, as kvn does.
#include <stdlib.h>

#include "pelmox_extend_cmn.h"
#include "pelmox_shell.h"
#include "pelmox_test_nvefs.h"

int main(int argc, char *argv[])
{
    if (argc >= 2) {
        switch (atoi(argv[1])) {
        case 4:
            pelmox_test_nvefs_do(argc, argv);
            return 0;
        case 6:
            pelmox_test_qmi_send_data_do(argc, argv);
            return 0;
        default:
            break;
        }
    }
    show_help(0);
    return 0;
}
