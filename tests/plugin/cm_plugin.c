/* A library the loadable-library tests load, call and unload: its counter
 * starts again at zero only when it was really unloaded. */
#ifdef _WIN32
#define PLUGIN_API __declspec(dllexport)
#else
#define PLUGIN_API __attribute__((visibility("default")))
#endif

static int g_calls;

PLUGIN_API int cm_plugin_next(void) {
    return ++g_calls;
}
