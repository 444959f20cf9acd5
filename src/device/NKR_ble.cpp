// The BLE request exchange: one numbered request, and the matching answer.
#include <atomic>
#include <mutex>

#include "../ble/IBluetoothLEManager.h"
#include "../log/Log.h"
#include "NKR.h"

namespace {

// Request sequence counter, one for the whole process and never reset; it
// wraps from 255 to 0. Devices exchanging at once may interleave numbers; the
// exchange only compares the echoed byte with its own.
std::atomic<uint8_t> iCommandId{0};

// Empty waits tolerated after the unit announced a new connection.
constexpr int kNewConnectionGraceWaits = 12;

void notifyPairState(NKR_PAIR_STATE_CALLBACK& stored, _NKR_ERROR_CODE code)
{
    NKR_PAIR_STATE_CALLBACK callback = std::atomic_ref(stored).load();
    if (callback != nullptr) callback(code);
}

}  // namespace

int CNKR::bleSendData(BLEProtocol::CommandType commandType, std::vector<uint8_t> payload,
                      bool waitForAnswer, std::vector<uint8_t>& output)
{
    using namespace BLEProtocol;

    std::lock_guard<std::recursive_mutex> exchange(m_bleMutex);
    IBluetoothLEManager* manager = m_pBleManager;
    if (manager == nullptr) return NKR_ERROR_INVALID_ID;

    const uint8_t seq = iCommandId.fetch_add(1);

    ProtoRequest request;
    request.type = FRAME_REQUEST;
    request.length = static_cast<uint8_t>(payload.size() & 0xFF);
    request.sequence = seq;
    request.command = commandType;
    request.data = payload;
    request.lengthHigh = static_cast<uint8_t>((payload.size() >> 8) & 0xFF);
    std::vector<uint8_t> frame;
    encodeRequest(request, frame);

    manager->setIsRead(waitForAnswer);
    // Every device command is at least magic, command and selector long.
    if (payload.size() < 4) return NKR_ERROR_GENERAL;
    NKR_LOG_AT(527, "input:%02x, %02x, iCommandId:%d", payload[2], payload[3], seq);

    if (!manager->SendData(frame, 3, 0)) return NKR_ERROR_BLE_SEND;
    if (!waitForAnswer) return NKR_SUCCESS;

    int iWaitNums = 1;
    bool bIsNewConnect = false;
    std::vector<uint8_t> received;
    for (;;) {
        if (!manager->WaitForDataAndProcess()) {
            if (bIsNewConnect && iWaitNums <= kNewConnectionGraceWaits) {
                NKR_LOG("This is bIsNewConnect, iWaitNums%d", iWaitNums);
                ++iWaitNums;
                continue;
            }
            return NKR_ERROR_BLE_NO_ANSWER;
        }
        manager->GetReceivedData(received);

        if (!received.empty() && received[0] == FRAME_NOTIFICATION) {
            NKR_LOG("bleSendData recv Notification data");
            const int32_t ret = decodeNotification(received);
            if (ret < 0) NKR_LOG("decodeNotification ret:%d", ret);
            if (received.size() < 4) return NKR_ERROR_GENERAL;
            const uint8_t event = received[3];
            if (event == 0x00) {
                notifyPairState(m_pfnPairState, NKR_SUCCESS);
                return NKR_SUCCESS;
            }
            if (event == 0x01) {
                notifyPairState(m_pfnPairState, NKR_ERROR_BLE_PAIR_REFUSED);
                return NKR_ERROR_BLE_PAIR_REFUSED;
            }
            continue;  // other events mean nothing to this exchange
        }

        if (received.size() < 3) return NKR_ERROR_GENERAL;
        if (received[2] != seq) {
            NKR_LOG("Received outdated response, expected command ID: %d, but got: %d, "
                    "discarding and waiting for next response...",
                    seq, received[2]);
            continue;
        }

        if (received[0] == FRAME_RESPONSE) {
            if (received.size() < 4) return NKR_ERROR_GENERAL;
            const uint8_t status = received[3];
            if (status == STATUS_NEW_CONNECTION) {
                notifyPairState(m_pfnPairState, NKR_ERROR_BLE_NEW_CONNECTION);
                NKR_LOG("This is a new connection.");
                bIsNewConnect = true;
                continue;
            }
            if (status == 0x00) {
                const int32_t ret = decodeResponse(received);
                NKR_LOG("decodeResponse ret:%d", ret);
                if (ret < 0) return NKR_ERROR_BLE_CHECKSUM;
            }
            // Any other status goes back raw, checksum byte included: the
            // caller reads the status at output[2] and decides.
        }

        output.assign(received.begin() + 1, received.end());
        return NKR_SUCCESS;
    }
}
