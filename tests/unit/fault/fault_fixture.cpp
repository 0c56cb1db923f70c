#include "fault_fixture.h"

#include "state/control.h"

#include <cstring>

void fillControlBlock() {
    empControl.selectTimeout = {1, 100};
    empControl.socketFdMSM = 3;
    empControl.socketAddressMSM.sun_family = AF_UNIX;
    memcpy(empControl.socketAddressMSM.sun_path, "/tmp/m/eventlog", 16);
    empControl.socketFdEventArchiver = 7;
    empControl.socketAddressEventArchiver.sin_family = AF_INET;
    empControl.socketAddressEventArchiver.sin_port = htons(20000);
    empControl.socketAddressEventArchiver.sin_addr.s_addr = htonl(0x7F000001);
    empControl.socketFdEventArchiverSet = 1;
    empControl.eventLogFileFd = 40;
    empControl.evManagerStatusFlag = 65534;
    empControl.evArchiverSocketState = 3;
    empControl.empWrite = 1599900U;
    empControl.empStart = 4293371000U;
    empControl.empStartSequenceId = 77U;
    empControl.empSequenceId = 2147483648U;
    empControl.empEventArchiverSequenceId = 4294967295U;
    empControl.empEventArchiverHandle = 1000U;
    memcpy(empControl.empEnclosureId, "Enclosure-7", 12);
    memset(empControl.empBladeId, 'B', 64);
    empControl.empSlotId = 12U;
    empControl.empInstanceNumber = 5U;
    empControl.mmsgEventLogMsgReceive = 16909056U;
    empControl.mmsgEventInquiryMsgReceive = 16909057U;
    empControl.mmsgEventInquiryMsgInvalid = 16909058U;
    empControl.mmsgEventSetEventArchiverReceive = 16909059U;
    empControl.mmsgEventGetEventArchiverReceive = 16909060U;
    empControl.mmsgEventGetEventManagerStatusReceive = 16909061U;
    empControl.mmsgEventGetEventArchiverStatusReceive = 16909062U;
    empControl.mmsgEventAlternateEventLogMsgReceive = 16909063U;
    empControl.mmsgEventUnknownMsgReceive = 16909064U;
    empControl.mmsgEventLogMsgSend = 16909065U;
    empControl.mmsgEventResponseMsgSendSuccess = 16909066U;
    empControl.mmsgEventResponseMsgSendFail = 16909067U;
    empControl.mmsgEventResponseMsgSendResourceNotAvailable = 16909068U;
    empControl.EAmsgEventLogMsgReceive = 16909069U;
    empControl.EAmsgEventInquiryMsgReceive = 16909070U;
    empControl.EAmsgEventInquiryMsgInvalid = 16909071U;
    empControl.EAmsgEventSetEventArchiverReceive = 16909072U;
    empControl.EAmsgEventGetEventArchiverReceive = 16909073U;
    empControl.EAmsgEventGetEventManagerStatusReceive = 16909074U;
    empControl.EAmsgEventGetEventArchiverStatusReceive = 16909075U;
    empControl.EAmsgEventUnknownMsgReceive = 16909076U;
    empControl.EAmsgEventLogMsgSend = 16909077U;
    empControl.EAmsgEventResponseMsgSendSuccess = 16909078U;
    empControl.EAmsgEventResponseMsgSendFail = 16909079U;
    empControl.empEventInLogFile = 16909080U;
    empControl.empEventAddToLogFile = 16909081U;
    empControl.empEventDelFromLogFile = 16909082U;
    empControl.evManagerInquiryMsgTimeout = 16909083U;
    empControl.evArchiverConnectionFailed = 16909084U;
    empControl.evArchiverConnectionAttempt = 16909085U;
    empControl.reconnectTimeout = {299, 500000};
    empControl.forwardTimeout = {-1, 999900};
    empControl.empWrapOver = 2;
    empControl.forwardPendingListCount = 200;
    empControl.responsePendingListCount = 255;
    empControl.foundGap = 1;
}

const char CONTROL_LINES[] =
    "empControl.selectTimeout.tv_sec                         = [1]\n"
    "empControl.socketFdMSM                                  = [3]\n"
    "empControl.socketAddressMSM.sun_path                    = [/tmp/m/eventlog]\n"
    "empControl.socketFdEventArchiver                        = [7]\n"
    "empControl.socketAddressEventArchiver.sin_addr.s_addr   = [0x7f000001]\n"
    "empControl.socketFdEventArchiverSet                     = [1]\n"
    "empControl.eventLogFileFd                               = [40]\n"
    "empControl.evManagerStatusFlag                          = [65534]\n"
    "empControl.evArchiverSocketState                        = [3]\n"
    "empControl.empWrite                                     = [1599900]\n"
    "empControl.empStart                                     = [-1596296]\n"
    "empControl.empStartSequenceId                           = [77]\n"
    "empControl.empSequenceId                                = [-2147483648]\n"
    "empControl.empEventArchiverSequenceId                   = [-1]\n"
    "empControl.empEventArchiverHandle                       = [1000]\n"
    "empControl.empEnclosureId                               = [Enclosure-7]\n"
    "empControl.empBladeId                                   = [BBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBBB]\n"
    "empControl.empSlotId                                    = [12]\n"
    "empControl.empInstanceNumber                            = [5]\n"
    "empControl.mmsgEventLogMsgReceive                       = [16909056]\n"
    "empControl.mmsgEventInquiryMsgReceive                   = [16909057]\n"
    "empControl.mmsgEventInquiryMsgInvalid                   = [16909058]\n"
    "empControl.mmsgEventSetEventArchiverReceive             = [16909059]\n"
    "empControl.mmsgEventGetEventArchiverReceive             = [16909060]\n"
    "empControl.mmsgEventGetEventManagerStatusReceive        = [16909061]\n"
    "empControl.mmsgEventGetEventArchiverStatusReceive       = [16909062]\n"
    "empControl.mmsgEventAlternateEventLogMsgReceive         = [16909063]\n"
    "empControl.mmsgEventUnknownMsgReceive                   = [16909064]\n"
    "empControl.mmsgEventLogMsgSend                          = [16909065]\n"
    "empControl.mmsgEventResponseMsgSendSuccess              = [16909066]\n"
    "empControl.mmsgEventResponseMsgSendFail                 = [16909067]\n"
    "empControl.mmsgEventResponseMsgSendResourceNotAvailable = [16909068]\n"
    "empControl.EAmsgEventLogMsgReceive                      = [16909069]\n"
    "empControl.EAmsgEventInquiryMsgReceive                  = [16909070]\n"
    "empControl.EAmsgEventInquiryMsgInvalid                  = [16909071]\n"
    "empControl.EAmsgEventSetEventArchiverReceive            = [16909072]\n"
    "empControl.EAmsgEventGetEventArchiverReceive            = [16909073]\n"
    "empControl.EAmsgEventGetEventManagerStatusReceive       = [16909074]\n"
    "empControl.EAmsgEventGetEventArchiverStatusReceive      = [16909075]\n"
    "empControl.EAmsgEventUnknownMsgReceive                  = [16909076]\n"
    "empControl.EAmsgEventLogMsgSend                         = [16909077]\n"
    "empControl.EAmsgEventResponseMsgSendSuccess             = [16909078]\n"
    "empControl.EAmsgEventResponseMsgSendFail                = [16909079]\n"
    "empControl.empEventInLogFile                            = [16909080]\n"
    "empControl.empEventAddToLogFile                         = [16909081]\n"
    "empControl.empEventDelFromLogFile                       = [16909082]\n"
    "empControl.evManagerInquiryMsgTimeout                   = [16909083]\n"
    "empControl.evArchiverConnectionFailed                   = [16909084]\n"
    "empControl.evArchiverConnectionAttempt                  = [16909085]\n"
    "empControl.reconnectTimeout.tv_sec                      = [299]\n"
    "empControl.forwardTimeout.tv_sec                        = [-1]\n"
    "empControl.empWrapOver                                  = [2]\n"
    "empControl.forwardPendingListCount                      = [200]\n"
    "empControl.responsePendingListCount                     = [255]\n"
    "empControl.empDebug                                     = [1]\n"
    "empControl.foundGap                                     = [1]\n";

const U8_t CONTROL_IMAGE[460] = {
    0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x64, 0x00, 0x00, 0x00, 0x03, // 0
    0x00, 0x01, 0x2F, 0x74, 0x6D, 0x70, 0x2F, 0x6D, 0x2F, 0x65, 0x76, 0x65, // 12
    0x6E, 0x74, 0x6C, 0x6F, 0x67, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 24
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 36
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 48
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 60
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 72
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 84
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 96
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 108
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x02, 0x4E, 0x20, // 120
    0x7F, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 132
    0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x28, 0xFF, 0xFE, 0x00, 0x03, // 144
    0x00, 0x18, 0x69, 0x9C, 0xFF, 0xE7, 0xA4, 0x78, 0x00, 0x00, 0x00, 0x4D, // 156
    0x80, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x03, 0xE8, // 168
    0x45, 0x6E, 0x63, 0x6C, 0x6F, 0x73, 0x75, 0x72, 0x65, 0x2D, 0x37, 0x00, // 180
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 192
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 204
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 216
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, // 228
    0x00, 0x00, 0x00, 0x00, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, // 240
    0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, // 252
    0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, // 264
    0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, // 276
    0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, // 288
    0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x42, 0x00, 0x00, 0x00, 0x0C, // 300
    0x00, 0x00, 0x00, 0x05, 0x01, 0x02, 0x03, 0x00, 0x01, 0x02, 0x03, 0x01, // 312
    0x01, 0x02, 0x03, 0x02, 0x01, 0x02, 0x03, 0x03, 0x01, 0x02, 0x03, 0x04, // 324
    0x01, 0x02, 0x03, 0x05, 0x01, 0x02, 0x03, 0x06, 0x01, 0x02, 0x03, 0x07, // 336
    0x01, 0x02, 0x03, 0x08, 0x01, 0x02, 0x03, 0x09, 0x01, 0x02, 0x03, 0x0A, // 348
    0x01, 0x02, 0x03, 0x0B, 0x01, 0x02, 0x03, 0x0C, 0x01, 0x02, 0x03, 0x0D, // 360
    0x01, 0x02, 0x03, 0x0E, 0x01, 0x02, 0x03, 0x0F, 0x01, 0x02, 0x03, 0x10, // 372
    0x01, 0x02, 0x03, 0x11, 0x01, 0x02, 0x03, 0x12, 0x01, 0x02, 0x03, 0x13, // 384
    0x01, 0x02, 0x03, 0x14, 0x01, 0x02, 0x03, 0x15, 0x01, 0x02, 0x03, 0x16, // 396
    0x01, 0x02, 0x03, 0x17, 0x01, 0x02, 0x03, 0x18, 0x01, 0x02, 0x03, 0x19, // 408
    0x01, 0x02, 0x03, 0x1A, 0x01, 0x02, 0x03, 0x1B, 0x01, 0x02, 0x03, 0x1C, // 420
    0x01, 0x02, 0x03, 0x1D, 0x00, 0x00, 0x01, 0x2B, 0x00, 0x07, 0xA1, 0x20, // 432
    0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x0F, 0x41, 0xDC, 0x02, 0xC8, 0xFF, 0x01, // 444
    0x01, 0x00, 0x00, 0x00,                                                 // 456
};
