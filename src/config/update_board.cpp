#include "config/update_board.h"

#include "base/process_end.h"
#include "base/shell.h"
#include "config/boot_turn.h"
#include "config/config.h"
#include "config/writer.h"
#include "core/process_control.h"

#include <cstdio>

constexpr size_t command_size = 100;

void then_save(const cJSON * /*command*/) {
    save_config();
}

void then_app_type(const cJSON * /*command*/) {
    save_config();
    stop_camera_processes();
    run_shell("killall -q display osd");
    stop_tft_display_processes();
    char command[command_size];
    snprintf(command, sizeof command, "./otg-switcher.php %d",
             static_cast<int>(config_record().app_type));
    run_shell(command);
    end_process(exit_status_failure);
}

void then_rc(const cJSON * /*command*/) {
    save_config();
    kill_process_by_name("rc");
}

void then_fs_rw(const cJSON * /*command*/) {
    save_config();
    if (config_record().fs_rw != 0) {
        fputs("Mounting FS in read-write mode\n", stderr);
        run_shell("mount -o rw,remount /");
        take_boot_turn();
        run_shell("mount -o rw,remount /boot");
        end_boot_turn();
    }
}
