/* Prints the CPU usage and the free memory of the last ten seconds.
 *
 *   cc -std=c99 ask.c $(pkg-config --cflags --libs vestra-api) -o ask && ./ask
 */
#include <stdio.h>
#include <vestra_api.h>

int main(void) {
    vestra_api_data requests[2] = {{VESTRA_API_CPU_TOTAL, 10, 0, 0, 0, 0, 0, 0},
                                   {VESTRA_API_MEMORY_AVAILABLE, 10, 0, 0, 0, 0, 0, 0}};
    vestra_api_h client = vestra_api_open();
    int result = client ? vestra_api_ask(client, requests, 2, 1000) : VESTRA_API_NO_MEMORY;

    vestra_api_close(client);
    if (result != VESTRA_API_OK) {
        fprintf(stderr, "ask: %s\n", vestra_api_result_text(result));
        return 1;
    }
    printf("CPU: %.1f %% on average, %.1f %% at most\n", requests[0].average, requests[0].maximum);
    printf("memory available: %.0f KiB at least\n", requests[1].minimum);
    return 0;
}
