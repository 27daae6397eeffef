// vestra_ipc.cpp -- the client request service, thread "QXClientProcess".
//
// The segment belongs to the client library and may vanish at any time. Clients may write anything into it at any time,
// so each word is read once, and only the copy is checked and used.

#include "vestra-daemon/vestra_ipc.h"

#include <cstdio>
#include <cstring>

#include "client/vestra_api.h"
#include "vestra-daemon/decoder.h"
#include "vestra-daemon/vestra_log.h"
#include "vestra-daemon/vestrad.h"

static constexpr char kCaller[] = "client_request_process";
static constexpr int kWaitNumber = 6;  // an argument of the client library's wait; only the library knows what it means
static constexpr int kPauseUs = 200000;
static constexpr int kStateWaits = 21;  // pauses until a signalled request must be posted: 4.2 s

static int32_t load(const int32_t *word) {
    return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}

static void store(int32_t *word, int32_t value) {
    __atomic_store_n(word, value, __ATOMIC_RELEASE);
}

static bool is_valid(vestra_shm_record *shm) {
    void *segment = shm;
    return check_if_valid_shm(&segment) != 0;
}

static int ready_value(vestra_shm_record *shm) {
    int value = 0;
    if (is_valid(shm)) sem_getvalue(&shm->ready.semaphore, &value);
    return value;
}

static void log_request(int32_t type, int i, const vestra_api_data &request) {
    LOGS_AS("client_request_process");
    LOGD("[%s] %d %d %lf %lf, %lf, %lf\n", kCaller, type, i, request.maximum, request.minimum, request.average,
         request.variance);
}

// Waits until the client has posted the request that it has signalled.
static void wait_for_post(vestra_shm_record *shm) {
    for (int wait = 0; wait < kStateWaits; ++wait) {
        if (exit_flag || !is_valid(shm) || load(&shm->state) == VESTRA_REQUEST_POSTED) return;
        vestrad_usleep(kPauseUs);
    }
}

static void answer(vestra_shm_record *shm) {
    if (is_valid(shm)) store(&shm->state, VESTRA_REQUEST_ANSWERING);
    // All ones: type -1, unused, and the answer to a request of an unknown type (NaNs).
    vestra_api_data local[VESTRA_API_VITALS];
    memset(local, 0xff, sizeof(local));
    for (int i = 0; i < VESTRA_API_VITALS && is_valid(shm); ++i) {
        const int32_t type = load(&shm->request[i].packet_type);
        if (type == VESTRA_API_UNUSED) continue;
        local[i].packet_type = type;
        local[i].window = load(&shm->request[i].window);
    }
    answer_requests(local);
    for (int i = 0; i < VESTRA_API_VITALS && is_valid(shm); ++i) {
        if (local[i].packet_type == VESTRA_API_UNUSED) continue;
        log_request(local[i].packet_type, i, local[i]);
        // Copies the bytes of four adjacent doubles, so that all ones stay all ones.
        memcpy(&shm->request[i].maximum, &local[i].maximum, 4 * sizeof(double));
        store(&shm->request[i].answer_type, local[i].packet_type);
        log_request(local[i].packet_type, i, shm->request[i]);
    }
    if (is_valid(shm)) store(&shm->state, VESTRA_REQUEST_ANSWERED);
    if (ready_value(shm) < 1) {
        vestra_ready_sem_unlock_func(kCaller);
    } else if (is_valid(shm)) {
        // There is a pending signal already. Wake the client unless it has changed the state meanwhile.
        const int32_t state = load(&shm->state);
        if (state == VESTRA_REQUEST_POSTED || state == VESTRA_REQUEST_ANSWERED || state == VESTRA_REQUEST_ANSWERING) {
            vestra_ready_sem_unlock_func(kCaller);
        }
    }
}

static void give_up(vestra_shm_record *shm) {
    if (ready_value(shm) >= 1) return;
    if (is_valid(shm)) store(&shm->state, VESTRA_REQUEST_GIVEN_UP);
    vestra_ready_sem_unlock_func(kCaller);
}

void *client_request_process(void * /*arg*/) {
    while (!exit_flag) {
        auto *shm = static_cast<vestra_shm_record *>(get_shm());
        if (shm == nullptr || load(&shm->marker) == 0) {
            printf("Ves-Tra SHM has been removed or daemon init in progress!!!");
            vestrad_usleep(kPauseUs);
            continue;
        }
        if (vestra_request_sem_lock_func(kCaller, kWaitNumber) < 0) continue;
        wait_for_post(shm);
        if (!is_valid(shm) || load(&shm->state) == VESTRA_REQUEST_POSTED) {
            answer(shm);
        } else {
            give_up(shm);
        }
    }
    return nullptr;
}
