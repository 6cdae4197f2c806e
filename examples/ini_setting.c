/*
 * Read and write one setting with the one-shot INI calls.
 *
 *   ini_setting [FILE]    (default: example.ini in the current folder)
 *
 * IniUtil_setFileStr loads the file (a missing one is empty), sets the value
 * and writes the whole file back, keeping every other line and comment.
 * IniUtil_getFileStr answers with the default when the key is absent.
 */
#include <stdio.h>
#include <BaseLib.h>

int main(int argc, char** argv) {
    const char* path = argc > 1 ? argv[1] : "example.ini";
    char host[64];
    vek_s32 port;
    vek_s32 rc;

    BaseLib_init();
    rc = IniUtil_setFileStr(path, "Modem", "Host", "192.0.2.10");
    if (rc < 0) {
        fprintf(stderr, "cannot write %s (%d)\n", path, (int)rc);
        BaseLib_exit();
        return 1;
    }
    IniUtil_setFileInt(path, "Modem", "Port", 2101);

    IniUtil_getFileStr(path, "modem", "host", "localhost", host, (vek_s32)sizeof host);
    port = IniUtil_getFileInt(path, "Modem", "Port", 0);
    printf("Host=%s Port=%d Retries=%d\n", host, (int)port,
           (int)IniUtil_getFileInt(path, "Modem", "Retries", 3)); /* absent: the default */
    BaseLib_exit();
    return port == 2101 ? 0 : 1;
}
