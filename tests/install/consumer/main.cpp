// A program built against an installed lumstorage, as a client of the hub is: it starts the service, asks one question
// the service answers without any disk (whether the storage is encrypted: never) and prints the answer.
#include <cstdio>
#include <unistd.h>

#include <StorageModuleCmd.h>
#include <StorageModuleHub.h>
#include <StorageSystem.h>

int main()
{
    StorageSystemInit();
    android::Parcel request, reply;
    request.writeInt32(STORAGE_IS_ENCRYPTED);
    request.setDataPosition(0);
    int rc = StorageModuleHub::self()->invoke(request, &reply);
    reply.setDataPosition(0);
    int32_t encrypted = 0;
    bool answered = reply.readInt32(&encrypted) == android::OK;
    printf("STORAGE_IS_ENCRYPTED: result %d, reply %s\n", rc,
           !answered ? "(none)" : encrypted != 0 ? "true" : "false");
    fflush(stdout);
    // The service has no stop: its threads run until the process ends, so the process ends as lumstoraged
    // does, without destroying the service's static objects under them.
    _exit(rc == 0 && answered ? 0 : 1);
}
