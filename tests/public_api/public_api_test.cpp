// A firmware module's view of the layer: this program sees only vesk_utility.h and links only the
// shared library, built with hidden visibility. Every exported entry is named in the table below, so
// an entry left unexported fails the link; a short run then uses the layer the way a module does.
#include <pthread.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iterator>

#include "vesk_utility.h"

using namespace vesk_soft;

int public_api_time_failures(); // public_api_time.cpp

using entry = void (*)();
#define E(name) reinterpret_cast<entry>(&vesk_utility_##name)
#define T(name, ...) reinterpret_cast<entry>(static_cast<__VA_ARGS__>(&vesk_utility_##name))
// Overloaded entries not in the table are called in main.
[[gnu::used]] extern const entry public_api_entries[] = {
    E(g711_alaw_encode), E(g711_alaw_decode), E(g711_ulaw_encode), E(g711_ulaw_decode), E(new_wav_operate),
    E(delete_wav_operate),
    E(av_writer_init), E(av_writer_put), E(av_writer_close), E(push_av_block), E(set_av_max_cache),
    E(set_chn_connect_status), E(switch_av_ivr_ch), E(new_av_reader), E(delete_av_reader), E(get_stream_stat_info),
    E(get_last_frame_head), E(get_last_valid_I_time), E(get_video_resolution), E(update_real_bps_info),
    E(dump_real_bps), E(av_convert_type), E(get_frame), E(first_get_frame), E(rel_frame), E(rel_frame_multy),
    E(ivs_get_frame), E(ivs_first_get_frame), E(ivs_rel_frame), E(ivs_rel_frame_multy), E(get_logo_frame),
    E(charset_convert), E(gb2312_to_utf8), E(utf8_to_gb2312), E(gbk_to_utf8), E(utf8_to_gbk), E(is_utf8),
    E(utf8_truncate), E(base64_encode_size), E(base64_encode), E(base64_decode), E(new_md5_cnt), E(delete_md5_cnt),
    E(md5_buf), E(md5_file), E(3des_encrypt), E(3des_decrypt),
    E(init), E(open_socket), E(close_socket), E(open), E(close), E(fopen), E(fclose), E(is_valid_socket),
    E(is_valid_open_fd), E(is_valid_fopen_fd), E(regist_diag), E(tst_bit), E(set_bit), E(clr_bit), E(sleep_ms),
    E(add_circle_data), E(del_circle_data), E(fetch_circle_data),
    E(set_event_push_state), E(get_event_push_state), E(register_event_oberver), E(unregister_event_oberver),
    E(set_event_arming), E(get_event_arming), E(set_event_state), E(get_event_info), E(set_event_valid_time),
    E(new_binary_operate), E(delete_binary_operate), E(new_txt_operate), E(delete_txt_operate), E(new_block_operate),
    E(delete_block_operate), E(remove_file),
    E(new_json_operate), E(new_json_operate_V2), E(delete_json_operate), E(delete_json_operate_V2),
    E(new_lock), E(new_rw_lock), E(new_interuptable_sleep), E(delete_lock), E(delete_rw_lock),
    E(delete_interuptable_sleep),
    E(RTPtoH264_InputData), E(H264toRTP_InputData), E(H265toRTP_InputData), E(RTPtoH265_InputData),
    E(abs_to_real_point), E(real_to_abs_point), E(abs_to_real_rect), E(real_to_abs_rect), E(is_valid_abs),
    E(is_cross_line), E(is_point_in_region), E(roi_enlarge), E(roi_reduce), E(roi_move), E(abs_to_window_rect),
    E(get_line_arrow),
    E(malloc), E(calloc), E(realloc), E(strdup), E(free), E(av_reader_malloc), E(av_reader_free), E(note_malloc),
    E(note_free), E(get_system_mem_info), E(dump_rss),
    E(is_net_dev_exist), E(is_net_dev_up), E(is_slave_net_dev), E(get_ipv6_prefixlen), E(get_local_mac),
    E(get_ipv4_ipconfig), E(get_ipv6_ipconfig), E(get_ipv4_route_config), E(get_ipv6_route_config),
    E(get_ipv4_dns_config), E(get_ipv6_dns_config), E(get_if_config), E(relase_ipv4_ipconfig), E(relase_ipv6_ipconfig),
    E(relase_ipv4_route_config), E(relase_ipv6_route_config), E(relase_ipv4_dns_config), E(relase_ipv6_dns_config),
    E(relase_if_config), E(set_net_dev_up), E(set_net_dev_mtu), E(set_net_dev_mac), E(set_ipv4_ipconfig),
    E(add_ipv4_alias), E(del_ipv4_alias), E(add_ipv6_ipconfig), E(del_ipv6_ipconfig), E(add_ipv4_gateway),
    E(del_ipv4_gateway), E(set_ipv4_dns_config), E(set_ipv6_dns_config), E(toolnet_open_udp), E(toolnet_send_to),
    E(toolnet_send_to_addr), E(toolnet_listen_tcp), E(toolnet_connect_tcp), E(toolnet_send), E(toolnet_close),
    E(toolnet_local_port),
    E(image_size), E(image_wrap), E(image_convert), E(jpeg_get_info), E(jpeg_encode), E(jpeg_decode),
    E(new_bmp_operate), E(delete_bmp_operate), E(qr_encode), E(qr_save_bmp),
    E(open_database), E(close_database), E(exec_sql_command), E(free_inquiry_result), E(table_exists),
    E(get_table_column_num), E(exec_sql_set_value), E(exec_sql_get_value), E(check_sql_corrupt),
    E(check_sql_corrupt_by_alias), E(recover_database),
    E(system), E(exe_cmd),
    E(creat_thread), E(enter_thread), E(exit_thread), E(retrieve_thread),
    E(get_timeval), E(timeval_diff_ms), E(timeval_diff_us),
    E(c_regist_timer), E(c_regist_fetch_wd_timer), E(c_unregist_timer), E(c_timer_wakeup), E(adj_comm_thr_num),
    E(adj_real_time_thr_num),
    E(new_url_operate), E(delete_url_operate), E(http_get), E(http_post),
    E(regist_dog), E(fetch_dog), E(unregist_dog), E(regist_reboot_func),
    E(new_xls_operate), E(delete_xls_operate),
    E(new_xml_operate), E(delete_xml_operate),
    reinterpret_cast<entry>(&vesk_utiltiy_net_start),
    T(popen, FILE* (*)(const char*, const char*)), T(pclose, int (*)(FILE*)),
    T(get_event_state, VESK_ERR (*)(const vesk_event_id*, VESK_BOOL*, long*, long*)),
    T(get_event_state, VESK_ERR (*)(const vesk_event_type*, VESK_BOOL*)),
    T(set_event_filter, VESK_ERR (*)(vesk_event_user_id, const vesk_event_id*, VESK_BOOL)),
    T(set_event_filter, VESK_ERR (*)(vesk_event_user_id, const vesk_event_type*, VESK_BOOL)),
};
#undef E
#undef T

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

void* routine(void* arg)
{
    const unsigned long self = pthread_self();
    if (vesk_utility_enter_thread(self, "api_worker") == VESK_OK)
        *static_cast<volatile int*>(arg) = 1;
    vesk_utility_exit_thread(self);
    return nullptr;
}

} // namespace

int main()
{
    char root[] = "/tmp/vesk_api.XXXXXX";
    CHECK(mkdtemp(root) != nullptr);
    setenv("VESK_UTILITY_ROOT", root, 1);

    volatile int ran = 0;
    vesk_thread_creat_ctl ctl = {VESK_THREAD_WORK_COMMON, 0, routine, (void*)&ran, 0, 0};
    unsigned long th = 0;
    CHECK(vesk_utility_malloc(0x40, 1, 16, 1) == nullptr); // refused before init
    CHECK(vesk_utility_creat_thread(&ctl, "api", &th) == VESK_ERR_NOT_INIT && th == 0);
    CHECK(vesk_utility_init(VESK_UTILITY_OPS_MAIN_APP) == VESK_OK);

    void* a = vesk_utility_malloc(0x40, 0x4001, 100, 16);
    CHECK(a != nullptr && vesk_utility_free(__FILE__, __func__, a) == VESK_OK);
    CHECK(vesk_utility_note_new(0x40, 0x4005, 10) == VESK_OK);
    CHECK(vesk_utility_note_delete(__FILE__, __func__, 0x40, 0x4005, 10) == VESK_OK);
    CHECK(vesk_utility_note_new("api_class") == VESK_OK && vesk_utility_note_delete("api_class") == VESK_OK);
    CHECK(vesk_utility_creat_thread(&ctl, "api_thread", &th) == VESK_OK);
    CHECK(vesk_utility_retrieve_thread(th) == VESK_OK && ran == 1);
    vesk_lock* lk = vesk_utility_new_lock(0x40, "api lock");
    CHECK(lk != nullptr && lk->lock(__FILE__, __func__) == VESK_OK && lk->unlock(__FILE__, __func__) == VESK_OK);
    CHECK(lk != nullptr && vesk_utility_delete_lock(lk, __FILE__, __func__) == VESK_OK);

    CHECK(vesk_utility_min(1, 2) == 1 && vesk_utility_min(1u, 2u) == 1u);
    CHECK(vesk_utility_max(1, 2) == 2 && vesk_utility_max(1u, 2u) == 2u);
    CHECK(vesk_utility_middle(5, 0, 3) == 3 && vesk_utility_middle(5u, 0u, 9u) == 5u);
    CHECK(vesk_utility_cnt_interval(1, 4) == 3u && vesk_utility_cnt_interval(1L, 4L) == 3UL
        && vesk_utility_cnt_interval(4u, 1u) == 3u);
    char out[16] = {0};
    int fd = -1, pid = -1;
    CHECK(vesk_utility_popen("echo fd", "r", &fd, &pid) == VESK_OK && read(fd, out, sizeof(out)) == 3);
    CHECK(memcmp(out, "fd\n", 3) == 0 && vesk_utility_pclose(fd, pid) == VESK_OK);
    CHECK(vesk_utility_pclose(-1, -1) == VESK_ERR_INVALID_PARAM);

    CHECK(public_api_time_failures() == 0);

    rmdir(root);
    fprintf(stderr, "public API: %zu entries linked, %d failures\n", std::size(public_api_entries), s_failures);
    return s_failures == 0 ? 0 : 1;
}
