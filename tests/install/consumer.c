/* Uses the installed library: the umbrella header, tracked memory, text. */
#include <BaseLib.h>
#include <stdio.h>

int main(void) {
    char buf[512];  /* room for a long install path */
    void* p;
    BaseLib_init();
    p = vek_malloc__(32);
    vek_snprintf(buf, sizeof buf, "BaseLib %s from %s", vek_version(), vek_base_fld());
    vek_free__(p);
    BaseLib_exit();
    puts(buf);
    return 0;
}
