#include "driver/plc_state.h"

namespace plc {

DriverSettings *g_s_settings = nullptr;
char ip_buff[20] = {};
uint32_t deviceport = 0;
uint32_t lastTwoOctets = 0;
uint32_t serial_n = 0;
std::unique_ptr<EipSession> session;
std::unique_ptr<CipConnection> connection;
uint32_t init = 0;
uint32_t connection_generation = 0;
uint32_t timeout_count = 0;
ExchangeBuffer send_data;
ExchangeBuffer recv_data;

} // namespace plc
