#include "HotPlug.h"

CHotPlug::CHotPlug() = default;

CHotPlug::~CHotPlug() = default;

// The watcher posts nothing until the service can mount what it reports.
void CHotPlug::ThreadWorkFunction()
{
}
