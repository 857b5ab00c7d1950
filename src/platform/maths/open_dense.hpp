// OpenBLAS and who works with it: the dense operations of the open back end are shared out to the
// program's team, each part on one thread of it. OpenBLAS's own threads have no part in it.
#pragma once

// Ends the threads that OpenBLAS started when it was loaded: waiting, they would hold a processor
// for some 30 milliseconds. Where memory is short they are left alone.
void OPENDENSE_ENDTHREADS();

// OpenBLAS asks for a buffer again and again until it gets it, so it is asked while there is room,
// for all threads at once, and keeps them from then on. False when memory is short.
bool OPENDENSE_PREPARE();
