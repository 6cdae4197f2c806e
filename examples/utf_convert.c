/*
 * Convert text between UTF-8 and UTF-16 (vek_wchar, host order).
 *
 * The buffer converters take the destination's size in units and always
 * terminate; they return the number of units (or bytes) written.
 */
#include <stdio.h>
#include <string.h>
#include <BaseLib.h>

int main(void) {
    const char* utf8 = "Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC 5"; /* "Grüße € 5" */
    vek_wchar wide[32];
    char back[64];
    vek_s32 units, bytes, i;

    BaseLib_init();
    units = utf8_str_to_wcs_str(utf8, wide, 32);
    printf("%d UTF-16 units:", (int)units);
    for (i = 0; i < units; i++) {
        printf(" %04X", (unsigned)wide[i]);
    }
    printf("\n");

    bytes = wcs_str_to_utf8_str(wide, back, (vek_s32)sizeof back);
    printf("%d UTF-8 bytes back: %s\n", (int)bytes, back);
    BaseLib_exit();
    return strcmp(utf8, back) == 0 && units == 9 ? 0 : 1;
}
