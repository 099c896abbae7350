// Linked beside the README's host by the packaging test. The host calls the proximity layer only,
// and a static link takes nothing it does not call, so a package that forgot campaigns, the Linux
// sources or the libraries behind them (sd-bus, libgps) would still link it. Here each is called.
#include <memory>

#include "campaigns/LWManager.h"
#include "sensing/bluez_beacon_source.h"
#include "sensing/desktop_presenter.h"
#include "sensing/gpsd_position_source.h"

// Never run: the references have to resolve at link time, which is the whole point.
void quenbyEveryLayer() {
    auto* volatile campaigns = &LWManager::managerWithDelegate;
    auto* volatile bluez = &quenby::sensing::BluezBeaconSource::create;
    auto* volatile gpsd = &quenby::sensing::GpsdPositionSource::create;
    auto* volatile desktop = &quenby::sensing::DesktopPresenter::create;
    (void)campaigns;
    (void)bluez;
    (void)gpsd;
    (void)desktop;
}
