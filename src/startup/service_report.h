// How the running service does, told to a platform that asks (platform/ServiceReport.h).
#pragma once

// Once, before the service runs. The report is put together when it is asked for, on the asker's
// thread, from the notes of utility/service_record.h.
void offerServiceReport();
