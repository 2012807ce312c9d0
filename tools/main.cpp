// lumstoragectl: sends storage commands to lumstoraged and watches events.
#include <cstdio>

#include "lumctl/ctl.h"

int main(int argc, char** argv)
{
    return lumctl::ctl_main(argc, argv, stdout, stderr);
}
