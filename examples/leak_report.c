/*
 * Leak a block and show the leak report.
 *
 * The process heap reports its leaks at BaseLib_exit when "LeakChkLev=1"
 * stands in section [VekHeap] of VekDbg.ini beside the library. This
 * program shows the same report at once, with a heap monitor of its own
 * and the trace records sent to standard output.
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <BaseLib.h>

static void print_record(void* ctx, const char* text, vek_s32 len) {
    (void)ctx;
    fwrite(text, 1, (size_t)len, stdout);
    fputc('\n', stdout);
}

int main(void) {
    IHeapMon* heap;
    char* kept;
    char* freed;
    vek_s32 leaks;

    BaseLib_init();
    tout_set_sink(print_record, NULL);
    /* leak level 1: call stacks are recorded, so the report can list them */
    heap = HeapMon_create("Example", malloc, free, NULL, 1, 0, 1);

    kept = (char*)heap->vtbl->allocMem(heap, 32);
    strcpy(kept, "this block is never freed");
    freed = (char*)heap->vtbl->allocMem(heap, 16);
    heap->vtbl->freeMem(heap, freed);

    leaks = heap->vtbl->outLeak(heap, 64);
    printf("leaks reported: %d\n", (int)leaks);

    heap->vtbl->freeMem(heap, kept); /* a real program would fix the leak */
    heap->vtbl->release(heap);
    tout_set_sink(NULL, NULL);
    BaseLib_exit();
    return leaks == 1 ? 0 : 1;
}
