/*
 * VekTest.h - what every suite shares: the fault recorder (every assertion
 * the library raises is recorded through the fault hook and answered
 * Ignore), the per-test leak check and a trace listener.
 */
#ifndef VEK_TEST_H
#define VEK_TEST_H

#include <gtest/gtest.h>
#include <functional>
#include <string>
#include <vector>
#include "BaseLib.h"

/* Marks a test function as exported so call stacks can name it. */
#ifdef _WIN32
#define VEK_TEST_EXPORT extern "C" __declspec(dllexport)
#else
#define VEK_TEST_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace vektest {

/* All fault texts recorded since the last take, oldest first. */
std::vector<std::string> faults();
/* Removes and returns the recorded fault texts. */
std::vector<std::string> take_faults();
/* Removes the first recorded assertion whose expression is expr; true when
 * there was one. */
bool take_assert(const std::string& expr);

/* Receives every trace record while alive. */
class TraceCapture {
  public:
    TraceCapture();
    ~TraceCapture();
    std::string all() const;
    bool contains(const std::string& s) const { return all().find(s) != std::string::npos; }
    std::vector<std::string> records;

  private:
    static void sink(void* ctx, const char* text, vek_s32 len);
    vek_trc_sink prevSink_;
};

/* A folder of its own for a test, removed afterwards. */
std::string temp_dir(const std::string& name);
void remove_tree(const std::string& path);
std::string read_file(const std::string& path);
/* The folder of the running test program. */
std::string self_dir();
/* The test program run again as a child process ("PROG --child NAME
 * ARG..."): the function registered under NAME runs between BaseLib_init
 * and BaseLib_exit instead of the tests, with the arguments after NAME,
 * and its result is the exit code. Register with VEKTEST_CHILD. */
using ChildMain = int (*)(int argc, char** argv);
bool add_child(const char* name, ChildMain fn);
#define VEKTEST_CHILD(name)                                                   \
    static int name##_child(int argc, char** argv);                           \
    static const bool name##_added = vektest::add_child(#name, name##_child); \
    static int name##_child(int argc, char** argv)
/* Runs a command line through the system's shell; its exit status. */
int run_command(const std::string& cmd);
void write_file(const std::string& path, const std::string& data);
/* True when the Windows build runs under wine (whose file-change
 * notifications miss a rename over an existing file). */
bool under_wine();
/* The debug manager's limit file of this test program (in a folder of its
 * own, kept until the program ends), given to DbgMng_cfgByFile at the first
 * call: its watcher then runs for the rest of the program instead of
 * coming and going with a test. Call it from SetUpTestSuite. */
std::string dbg_cfg_file();
/* Writes that file back to (nearly) nothing and waits until its watcher
 * has read it, so no late reload of a test's limits reaches the next test. */
void dbg_cfg_settle();
/* Runs f on a library thread (vek_thrd_create__); returns its id. */
vek_u32 spawn(std::function<vek_u32()> f);
/* Polls cond every ms until it holds or 10 s pass (a loaded machine's
 * bound); its last answer. */
bool until(const std::function<bool()>& cond);

} // namespace vektest

/* The base fixture: no assertion may stay unexplained and no tracked block
 * may leak from a test. */
class VekTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    /* Expects that exactly the assertion expr fired (once) since the last
     * check, and forgets it. */
    void expect_assert(const std::string& expr);
    vek_s64 liveAtStart_ = 0;
};

#define EXPECT_ASSERT(expr_text, ...)              \
    do {                                           \
        __VA_ARGS__;                               \
        expect_assert(expr_text);                  \
    } while (0)

#endif /* VEK_TEST_H */
