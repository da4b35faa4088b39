// A firmware module's view of the layer: this file sees only vesk_utility.h and links only
// the shared library. It calls the entry points of every family with their exported
// signatures and checks what a caller can observe.
#include <fcntl.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "vesk_utility.h"

using namespace vesk_soft;

int public_api_time_failures(); // public_api_time.cpp

namespace
{

int s_failures = 0;
void check(bool ok, const char* what)
{
    if (!ok) {
        fprintf(stderr, "FAILED: %s\n", what);
        s_failures++;
    }
}
#define CHECK(expr) check((expr), #expr)

// A registered routine: names itself, then ends; the flag tells the parent it ran.
void* named_routine(void* arg)
{
    const unsigned long self = pthread_self();
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/task/%ld/comm", static_cast<long>(syscall(SYS_gettid)));
    if (vesk_utility_enter_thread(self, "api_worker") == VESK_OK) {
        char comm[32] = {0};
        FILE* fp = fopen(path, "r");
        if (fp != nullptr) {
            if (fgets(comm, sizeof(comm), fp) != nullptr && strcmp(comm, "api_worker\n") == 0)
                *static_cast<volatile int*>(arg) = 1;
            fclose(fp);
        }
    }
    vesk_utility_exit_thread(self);
    return nullptr;
}

void check_memory_and_handles()
{
    void* a = vesk_utility_malloc(0x40, 0x4001, 100, 16);
    CHECK(a != nullptr && reinterpret_cast<uintptr_t>(a) % 16 == 0);
    void* c = vesk_utility_calloc(0x40, 0x4002, 10, 10);
    CHECK(c != nullptr && static_cast<unsigned char*>(c)[99] == 0);
    a = vesk_utility_realloc(0x40, 0x4001, a, 200, __FILE__, __func__, 16);
    char* s = vesk_utility_strdup(0x40, 0x4003, "camera", 3);
    CHECK(a != nullptr && s != nullptr && strcmp(s, "cam") == 0);
    void* r = vesk_utility_av_reader_malloc(0x40, 0x4004, 64);
    CHECK(r != nullptr && vesk_utility_av_reader_free(__FILE__, __func__, r) == VESK_OK);
    for (void* p : {a, c, static_cast<void*>(s)})
        CHECK(vesk_utility_free(__FILE__, __func__, p) == VESK_OK);
    CHECK(vesk_utility_note_malloc(0x40, 0x4005, 10) == VESK_OK);
    CHECK(vesk_utility_note_free(__FILE__, __func__, 0x40, 0x4005, 10) == VESK_OK);
    CHECK(vesk_utility_note_new(0x40, 0x4006, 10) == VESK_OK);
    CHECK(vesk_utility_note_delete(__FILE__, __func__, 0x40, 0x4006, 10) == VESK_OK);
    CHECK(vesk_utility_note_new("api_class") == VESK_OK && vesk_utility_note_delete("api_class") == VESK_OK);
    unsigned total = 0, free_kb = 0, buffers = 0, cached = 0;
    CHECK(vesk_utility_get_system_mem_info(total, free_kb, buffers, cached) == VESK_OK && total > free_kb);
    vesk_utility_dump_rss(0);

    const int sock = vesk_utility_open_socket(0x40, "api", AF_UNIX, SOCK_STREAM, 0);
    CHECK(sock >= 0 && vesk_utility_is_valid_socket(sock));
    CHECK(vesk_utility_close_socket(__FILE__, __func__, sock) == VESK_OK && !vesk_utility_is_valid_socket(sock));
    const int fd = vesk_utility_open(0x40, "api", "/dev/null", O_RDONLY, 0);
    CHECK(fd >= 0 && vesk_utility_is_valid_open_fd(fd) && vesk_utility_close(__FILE__, __func__, fd) == VESK_OK);
    FILE* fp = vesk_utility_fopen(0x40, "api", "/dev/null", "r");
    CHECK(fp != nullptr && vesk_utility_is_valid_fopen_fd(fp) && vesk_utility_fclose(__FILE__, __func__, fp) == VESK_OK);
}

void check_helpers()
{
    CHECK(vesk_utility_min(1, 2) == 1 && vesk_utility_min(1u, 2u) == 1u);
    CHECK(vesk_utility_max(1, 2) == 2 && vesk_utility_max(1u, 2u) == 2u);
    CHECK(vesk_utility_middle(5, 0, 3) == 3 && vesk_utility_middle(5u, 0u, 9u) == 5u);
    CHECK(vesk_utility_cnt_interval(1, 4) == 3u && vesk_utility_cnt_interval(1L, 4L) == 3UL
        && vesk_utility_cnt_interval(0xFFFFFFFFu, 0u) == 0u);
    unsigned bits = 0;
    vesk_utility_set_bit(bits, 3);
    CHECK(vesk_utility_tst_bit(bits, 3));
    vesk_utility_clr_bit(bits, 3);
    CHECK(bits == 0);
    vesk_utility_sleep_ms(1);
    char pool[8];
    unsigned wr = 0, rd = 0;
    CHECK(vesk_utility_add_circle_data(pool, 8, wr, rd, "abc", 3) == VESK_OK);
    char *p1, *p2;
    unsigned len1, len2;
    vesk_utility_fetch_circle_data(pool, 8, wr, rd, p1, len1, p2, len2);
    CHECK(len1 == 3 && memcmp(p1, "abc", 3) == 0 && p2 == nullptr);
    CHECK(vesk_utility_del_circle_data(pool, 8, wr, rd, 3) == VESK_OK && rd == 3);
    VESK_BOOL b = 1;
    CHECK(b == 1 && VESK_FRAME_STARTCODE == 0xAB010000u && VESK_ERR_IO == 0x40120023u);
}

void check_threads(vesk_thread_creat_ctl& ctl, volatile int& named)
{
    unsigned long th = 0;
    CHECK(vesk_utility_creat_thread(&ctl, "api_thread", &th) == VESK_OK && th != 0);
    CHECK(vesk_utility_retrieve_thread(th) == VESK_OK && named == 1);
    CHECK(vesk_utility_retrieve_thread(th) == VESK_ERR_OPERATE_FAIL);
    ctl.work_type = 3;
    CHECK(vesk_utility_creat_thread(&ctl, "api_bad", &th) == VESK_ERR_NOT_SUPPORT);
}

// Locks are created and deleted through the registry and used through their interfaces.
void check_locks()
{
    vesk_lock* lk = vesk_utility_new_lock(0x40, "api lock");
    char text[128];
    CHECK(lk != nullptr && lk->lock(__FILE__, __func__) == VESK_OK);
    CHECK(lk != nullptr && lk->trylock(__FILE__, __func__, 100) == VESK_ERR_LOCK_BUSY);
    CHECK(lk != nullptr && lk->get_locked_info(text, sizeof(text)) == 1 && strstr(text, "'api lock' is locked by") == text);
    CHECK(lk != nullptr && lk->unlock(__FILE__, __func__) == VESK_OK && lk->get_state(text, sizeof(text)) == 0);
    CHECK(lk != nullptr && vesk_utility_delete_lock(lk, __FILE__, __func__) == VESK_OK);
    vesk_rw_lock* rw = vesk_utility_new_rw_lock(0x40, "api rw");
    CHECK(rw != nullptr && rw->rd_lock() == VESK_OK && rw->wr_trylock(__FILE__, __func__, 0) == VESK_ERR_LOCK_BUSY);
    CHECK(rw != nullptr && rw->unlock(__FILE__, __func__) == VESK_ERR_LOCK_BUSY && rw->get_state(nullptr, 0) == 0);
    CHECK(rw != nullptr && vesk_utility_delete_rw_lock(rw, __FILE__, __func__) == VESK_OK);
    vesk_interuptable_sleep* nap = vesk_utility_new_interuptable_sleep(0x40, "api sleep");
    CHECK(nap != nullptr && nap->wakeup() == VESK_OK && nap->sleep(1) == VESK_ERR_OPERATE_FAIL);
    CHECK(nap != nullptr && vesk_utility_delete_interuptable_sleep(nap, __FILE__, __func__) == VESK_OK);
    CHECK(vesk_utility_delete_lock(nullptr, __FILE__, __func__) == VESK_ERR_INVALID_PARAM);
}

// A one-shot timer task runs on a common thread and is gone afterwards; JSON documents.
void check_timers_and_json()
{
    static volatile int s_timer_runs = 0;
    const vesk_timer_callback once = [](void* p, unsigned int*, vesk_timer_task_type* type) {
        if (p == &s_timer_runs && *type == VESK_TIMER_TASK_COMMON)
            s_timer_runs = s_timer_runs + 1;
        return VESK_TIMER_RET_DELETE;
    };
    CHECK(vesk_utility_c_regist_timer(0x40, once, 0x1, 10, (void*)&s_timer_runs, VESK_TIMER_TASK_COMMON, 0) == VESK_OK);
    for (int i = 0; i < 60000 && s_timer_runs == 0; i++)
        usleep(1000);
    CHECK(s_timer_runs == 1);
    CHECK(vesk_utility_c_timer_wakeup(once, (void*)&s_timer_runs, 0, VESK_TIMER_TASK_ALL) == VESK_OK);
    CHECK(vesk_utility_c_unregist_timer(once, (void*)&s_timer_runs, 1, VESK_TIMER_TASK_ALL) == VESK_OK);
    CHECK(vesk_utility_c_regist_timer(0x40, nullptr, 0x1, 10, nullptr, VESK_TIMER_TASK_COMMON, 0)
        == VESK_ERR_INVALID_PARAM);
    CHECK(vesk_utility_adj_real_time_thr_num(1) == VESK_OK); // never lowers the group

    vesk_json_operate_V2* doc = vesk_utility_new_json_operate_V2("{\"chn\":[]}", 0x40, "api json");
    CHECK(doc != nullptr);
    int32_t fps = 0;
    char out[32];
    if (doc != nullptr)
        doc->execSetInt("chn[%d].fps", 25, 0);
    CHECK(doc != nullptr && doc->execTryGetInt("chn[0].fps", &fps) == VESK_OK && fps == 25);
    CHECK(doc != nullptr && doc->exportContent(out, sizeof(out)) == doc->getContentSize()
        && strcmp(out, "{\"chn\":[{\"fps\":25}]}") == 0);
    CHECK(doc != nullptr && vesk_utility_delete_json_operate_V2(doc, __FILE__, __func__) == VESK_OK);
    vesk_json_operate* doc1 = vesk_utility_new_json_operate(nullptr, 0x40, "api json v1");
    CHECK(doc1 != nullptr && doc1->add_item_string("name", "gate") == VESK_OK);
    CHECK(doc1 != nullptr && vesk_utility_delete_json_operate(doc1, __FILE__, __func__) == VESK_OK);
}

void check_events()
{
    struct quiet : vesk_event_oberver {
        void on_event(const vesk_event_detail_info*, unsigned) const override { }
    } obs;
    CHECK(vesk_utility_register_event_oberver(0x40, &obs) == VESK_OK);
    vesk_event_info disk = {};
    disk.main_type = VESK_EVENT_DISK_EVENT;
    disk.sub_type = VESK_EVENT_SUB_DISK_FULL;
    disk.index = 1;
    CHECK(vesk_utility_set_event_state(&disk, 1) == VESK_OK);
    const vesk_event_id id = {VESK_EVENT_DISK_EVENT, 0, VESK_EVENT_SUB_DISK_FULL, 1, 0, {0, 0, 0}};
    VESK_BOOL active = 0;
    long start = 0, last = 0;
    CHECK(vesk_utility_get_event_state(&id, &active, &start, &last) == VESK_OK && active == 1 && start > 0);
    const vesk_event_type any = {VESK_EVENT_MAIN_ANY, VESK_EVENT_SUB_TYPE_ANY};
    CHECK(vesk_utility_get_event_state(&any, &active) == VESK_OK && active == 1);
    CHECK(vesk_utility_set_event_filter(VESK_EVENT_USER_LOCAL, &id, 1) == VESK_OK);
    vesk_event_detail_info rec[2];
    uint32_t count = 9;
    CHECK(vesk_utility_get_event_info(VESK_EVENT_USER_LOCAL, rec, 2, &count) == VESK_OK && count == 0);
    CHECK(vesk_utility_set_event_filter(VESK_EVENT_USER_LOCAL, &id, 0) == VESK_OK);
    CHECK(vesk_utility_get_event_info(VESK_EVENT_USER_LOCAL, rec, 2, &count) == VESK_OK && count == 1
        && rec[0].is_trigger == 1);
    vesk_arming_shedule sched = {};
    sched.day[1][0].end_minute = 60;
    vesk_event_id chn = {VESK_EVENT_CHANNEL_EVENT, 1, VESK_EVENT_SUB_MOTION, 2, 0, {0, 0, 0}};
    CHECK(vesk_utility_set_event_arming(&chn, &sched) == VESK_OK);
    vesk_arming_shedule back = {};
    CHECK(vesk_utility_get_event_arming(&chn, &back) == VESK_OK && back.day[1][0].end_minute == 60);
    VESK_BOOL push = 0;
    CHECK(vesk_utility_set_event_push_state(1) == VESK_OK && vesk_utility_get_event_push_state(&push) == VESK_OK
        && push == 1);
    CHECK(vesk_utility_set_event_valid_time(6) == VESK_OK);
    CHECK(vesk_utility_set_event_state(&disk, 0) == VESK_OK);
    CHECK(vesk_utility_unregister_event_oberver(0x40, &obs) == VESK_OK);
}

// Commands, process helpers, the watchdog, XML, URL transfers (nothing listens on port 1).
void check_system_xml_and_url()
{
    char out[16];
    CHECK(vesk_utility_exe_cmd("echo api", 30000, out, sizeof(out)) == VESK_OK && strcmp(out, "api\n") == 0);
    int fd = -1, pid = -1;
    CHECK(vesk_utility_popen("true", "x", &fd, &pid) == VESK_ERR_OPERATE_FAIL && fd == -1);
    CHECK(vesk_utility_system(nullptr) == VESK_ERR_INVALID_PARAM && vesk_utility_pclose(nullptr) == -1);
    unsigned long dog = 99;
    CHECK(vesk_utility_regist_dog(0x4242, 3600, &dog) == VESK_OK && vesk_utility_fetch_dog(dog) == VESK_OK
        && vesk_utility_unregist_dog(dog) == VESK_OK);
    vesk_utility_regist_reboot_func(nullptr);
    vesk_xml_operate* xml = vesk_utility_new_xml_operate(0x40, "api xml");
    int n = 0;
    CHECK(xml != nullptr && xml->create("root") == VESK_OK && xml->set_attr_int("", "n", 7) == VESK_OK);
    CHECK(xml != nullptr && xml->get_attr_int("", "n", &n) == VESK_OK && n == 7);
    CHECK(xml != nullptr && vesk_utility_delete_xml_operate(xml, __FILE__, __func__) == VESK_OK);
    unsigned len = 1;
    vesk_url_operate* url = vesk_utility_new_url_operate(0x40, "api url");
    CHECK(url != nullptr && url->download_buf("http://127.0.0.1:1/", out, sizeof(out), &len) == VESK_ERR_FAIL
        && len == 0 && url->get_http_code() == 0 && vesk_utility_delete_url_operate(url, __FILE__, __func__) == VESK_OK);
    CHECK(vesk_utility_http_get("http://127.0.0.1:1/", out, sizeof(out), nullptr, nullptr, 1000) == VESK_ERR_FAIL);
}

// Media and network helpers, usable from the header alone.
void check_media_and_net()
{
    unsigned char in[] = {'$', 0, 0, 14, 0x80, 96, 0, 1, 0, 0, 0, 0, 1, 2, 3, 4, 0x41, 7};
    unsigned char out[sizeof(in)];
    _tagVesk_rtp_h264_param rp = {in, (int32_t)sizeof(in), out, (int32_t)sizeof(out)};
    CHECK(vesk_utility_RTPtoH264_InputData(&rp) == VESK_OK && rp.nOutSize == 6 && out[4] == 0x41);
    CHECK(vesk_utility_RTPtoH265_InputData(&rp) == VESK_OK && vesk_utility_H264toRTP_InputData(nullptr) == VESK_OK
        && vesk_utility_H265toRTP_InputData(nullptr) == VESK_OK);
    CHECK(sizeof(_tagVeskFrameHeader) == 36);
    const vesk_abstract_point ap = {5, 10, 3, 4};
    vesk_real_point rpt = {0, 0};
    CHECK(vesk_utility_abs_to_real_point(1920, 1080, &ap, &rpt) == VESK_OK && rpt.x == 960 && rpt.y == 810);
    vesk_abstract_rect ar = {};
    const vesk_real_rect rr = {0, 0, 960, 1080};
    vesk_real_rect back = {};
    CHECK(vesk_utility_real_to_abs_rect(1920, 1080, &ar, &rr) == VESK_OK && vesk_utility_is_valid_abs(&ar) == 1
        && vesk_utility_abs_to_real_rect(1920, 1080, &ar, &back) == VESK_OK && back.w == 960);
    CHECK(vesk_utility_real_to_abs_point(10, 10, nullptr, &rpt) == VESK_ERR_INVALID_PARAM);
    CHECK(vesk_utility_get_ipv6_prefixlen("ffff:ff00::") == 24);
    CHECK(vesk_utility_is_net_dev_exist("lo") == 1 && vesk_utility_is_net_dev_up("lo") == 1
        && vesk_utility_is_slave_net_dev("lo") == 0);
    unsigned char mac[6];
    CHECK(vesk_utility_get_local_mac("lo", mac, sizeof(mac)) == 0);
    CHECK(vesk_utility_get_ipv4_dns_config("vesk_none") == nullptr
        && vesk_utility_get_ipv6_dns_config("vesk_none") == nullptr);
    vesk_inet_ipv4_ip_info_list* v4 = vesk_utility_get_ipv4_ipconfig("lo");
    CHECK(v4 != nullptr && v4->num >= 1 && strcmp(v4->first->ip, "127.0.0.1") == 0);
    if (v4 != nullptr)
        vesk_utility_relase_ipv4_ipconfig(v4);
    if (vesk_inet_ipv6_ip_info_list* v6 = vesk_utility_get_ipv6_ipconfig("lo"))
        vesk_utility_relase_ipv6_ipconfig(v6);
    if (vesk_inet_ipv4_route_info_list* r4 = vesk_utility_get_ipv4_route_config("lo"))
        vesk_utility_relase_ipv4_route_config(r4);
    if (vesk_inet_ipv6_route_info_list* r6 = vesk_utility_get_ipv6_route_config("lo"))
        vesk_utility_relase_ipv6_route_config(r6);
    vesk_if_config_struct* cfg = vesk_utility_get_if_config("lo");
    CHECK(cfg != nullptr && cfg->up == 1 && cfg->ipv4_ip != nullptr);
    if (cfg != nullptr)
        vesk_utility_relase_if_config(cfg);
}

// The process's cache fed by the block writer and read back, the stream's statistics and the
// other A/V entries.
void check_av()
{
    vesk_av_block_writer w;
    CHECK(vesk_utility_av_writer_init(&w, 8, VESK_AV_STREAM_MAIN, 0x9110C, 2048, 32) == VESK_OK);
    CHECK(vesk_utility_set_chn_connect_status(8, 1) == VESK_OK);
    // Three frames, the first a key frame, then a reader from the newest key frame: all three,
    // intact and in order.
    _tagVeskFrameHeader h {};
    h.uiStartId = VESK_FRAME_STARTCODE;
    h.uiLength = 200;
    h.usWidth = 640;
    for (uint32_t fno = 0; fno < 3; fno++) {
        h.uiFrameType = fno == 0 ? VESK_FRAME_TYPE_I : 2;
        h.uiFrameNo = fno;
        const std::vector<uint8_t> payload(h.uiLength, static_cast<uint8_t>(fno + 1));
        CHECK(vesk_utility_av_writer_put(&w, &h, payload.data()) == VESK_OK);
    }
    CHECK(vesk_utility_av_writer_close(&w) == VESK_OK);
    vesk_av_reader* r = vesk_utility_new_av_reader(VESK_AV_READER_FREE_RUN, VESK_AV_READER_STREAM_USER, 0x58);
    CHECK(r != nullptr && r->set_chn(8) == VESK_OK);
    for (uint32_t fno = 0; r != nullptr && fno < 3; fno++) {
        _tagVeskFrameHeader* f = nullptr;
        uint32_t next = 0;
        CHECK(r->get_frame(VESK_AV_STREAM_MAIN, &f, 0, &next) == VESK_OK && f != nullptr);
        if (f == nullptr)
            break;
        const uint8_t* p = reinterpret_cast<const uint8_t*>(f + 1);
        CHECK(f->uiFrameNo == fno && f->uiStartId == VESK_FRAME_STARTCODE && std::count(p, p + 200, fno + 1) == 200);
        CHECK(r->put_frame(VESK_AV_STREAM_MAIN, f) == VESK_OK);
    }
    CHECK(r != nullptr && r->is_free() && vesk_utility_delete_av_reader(r, __FILE__, __func__) == VESK_OK);

    vesk_IPC_stream_block_head bad {};
    bad.block_type = 4;
    CHECK(vesk_utility_push_av_block(0, &bad) == VESK_ERR_INVALID_PARAM);
    CHECK(vesk_utility_set_chn_connect_status(32, 1) == VESK_ERR_INVALID_PARAM);
    CHECK(vesk_utility_switch_av_ivr_ch(31, 30) == VESK_OK);
    vesk_stream_stat_info info;
    CHECK(vesk_utility_get_stream_stat_info(8, VESK_AV_STREAM_MAIN, &info) == VESK_OK);
    _tagVeskFrameHeader last;
    CHECK(vesk_utility_get_last_frame_head(8, VESK_AV_STREAM_NUM, last) == VESK_ERR_INVALID_PARAM);
    vesk_bps_real_info meter {};
    CHECK(vesk_utility_update_real_bps_info("api", &meter, &h) == VESK_OK && meter.width == 640);
    CHECK(vesk_utility_dump_real_bps("api", &meter) == VESK_OK);
    CHECK(vesk_utility_av_convert_type(VESK_ENC_STR_AUDIO) == VESK_AV_STREAM_AUDIO);
    _tagVeskFrameHeader* logo = nullptr;
    unsigned int logo_len = 0;
    CHECK(vesk_utility_get_logo_frame(VESK_LOGO_NO_VIDEO, 1, &logo, &logo_len) == VESK_ERR_OPERATE_FAIL);
    CHECK(vesk_utility_set_av_max_cache(32u << 20, 40u << 20) == VESK_OK);
}

} // namespace

int main()
{
    char root[] = "/tmp/vesk_api.XXXXXX";
    CHECK(mkdtemp(root) != nullptr);
    setenv("VESK_UTILITY_ROOT", root, 1);

    CHECK(vesk_utility_malloc(0x40, 1, 16, 1) == nullptr); // refused before init
    unsigned long early = 0;
    volatile int named = 0;
    vesk_thread_creat_ctl ctl = {VESK_THREAD_WORK_COMMON, 0, named_routine, (void*)&named, 0, 0};
    CHECK(vesk_utility_creat_thread(&ctl, "api", &early) == VESK_ERR_NOT_INIT && early == 0);
    CHECK(vesk_utility_retrieve_thread(1) == VESK_ERR_NOT_INIT);
    CHECK(vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP) == VESK_OK);
    CHECK(vesk_utility_init(VESK_UTILITY_OPS_PROXY_SERVER) == VESK_OK);

    check_memory_and_handles();
    check_helpers();
    check_threads(ctl, named);
    check_locks();
    check_timers_and_json();
    check_events();
    check_system_xml_and_url();
    check_media_and_net();
    check_av();
    CHECK(public_api_time_failures() == 0);

    rmdir(root);
    fprintf(stderr, "%s\n", s_failures == 0 ? "public API: all checks passed" : "public API: failures");
    return s_failures == 0 ? 0 : 1;
}
