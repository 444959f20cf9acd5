/* A minimal host program: find every focuser on USB, open it, move it
 * 100 steps outward, wait for the move to end, and close it (which saves the
 * position for the next session). Build: cc host_example.c -lNKR_focuser */
#define _DEFAULT_SOURCE /* usleep */
#include <stdio.h>
#include <unistd.h>

#include "NKR_focuser.h"

int main(void)
{
    int count = NKRGetNum();
    printf("focusers found: %d\n", count);
    for (int i = 0; i < count; ++i) {
        int id = -1;
        if (NKRGetID(i, &id) != NKR_SUCCESS || NKROpen(id) != NKR_SUCCESS) continue;

        int position = 0, range = 0;
        NKRGetPosition(id, &position);
        NKRStepRange(id, &range);
        int target = position + 100 <= range ? position + 100 : position - 100;
        int rc = NKRMove(id, target);
        if (rc != NKR_SUCCESS) {
            fprintf(stderr, "slot %d: move failed with code %d\n", id, rc);
            NKRClose(id);
            continue;
        }
        bool moving = true;
        while (moving && NKRIsMoving(id, &moving, NULL) == NKR_SUCCESS)
            usleep(50 * 1000);
        NKRGetPosition(id, &position);
        printf("slot %d: at %d (target %d)\n", id, position, target);
        NKRClose(id);
    }
    return 0;
}
