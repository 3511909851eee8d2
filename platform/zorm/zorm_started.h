// Tells another library of the platform that key management runs. The product runs it only for
// moments, so whoever has a key of his own to open must know when.
#pragma once

// `onStarted` is called on the starting thread after each start that succeeded, before it returns,
// with no lock held. Null unregisters.
void orb_zorm_on_started(void (*onStarted)());
