/* The smallest program on a host: it starts, reads one value and ends. */
#include "vswitchctl.h"

int main(int count, char **arguments)
{
    uint32_t number = 0;
    return count != 3 || VSDVS_DvPortIDToPortID(arguments[1], arguments[2], &number) != STATUS_OK;
}
