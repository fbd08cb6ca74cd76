#include "transfer/file_download.h"

#include <gtest/gtest.h>

TEST(FileDownload, TellsOfARequestAndOfItsReset) {
    testing::internal::CaptureStderr();
    request_file_download("127.0.0.2", 6000, "/media/clip", 70000);
    reset_file_download();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "File /media/clip download request offset 70000 from 127.0.0.2:6000\n"
              "File finished\n");
}
