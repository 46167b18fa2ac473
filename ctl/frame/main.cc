#include "tarn_ctl.h"

int main(int argc, char **argv)
{
    tarn_ctl_main(argc, argv);
}
