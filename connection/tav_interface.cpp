#include "tav_interface.h"

#include "tav_ducto.h"

tav_interface* tav_interface::create(tav_connection_type type, tav_conn_config config) {
    if (type != TAV_DUCTO_CONNECTION) return nullptr;
    return new tav_ducto(tav_ducto_config{config.channel_name});
}
