// The analysis overlay of a port: on or off, and what it shows.
#include "iva/iva_port.h"
#include "port/player_api.h"
#include "port/port_table.h"

uint32_t Player_SetIVAEnable(uint32_t port, uint32_t enable)
{
    return Player_OnPortOrLog(port, [&](PortRecord& rec) {
        rec.iva.enable.store(enable ? 1 : 0);
        return KORVALEN_OK;
    });
}

uint32_t Player_SetIVAShowParam(uint32_t showParam)
{
    IVA_SetShow(showParam);
    return KORVALEN_OK;
}

uint32_t Player_SetIVAShowParamEx(uint32_t port, uint32_t showParam, uint32_t mode)
{
    PortRecord* rec = Player_GetPort(port);
    IVA_SetPortShow(rec ? &rec->iva : nullptr, showParam, mode);
    return KORVALEN_OK;
}
