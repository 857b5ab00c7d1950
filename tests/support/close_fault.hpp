// Lets one of the closes to come fail like a disk that reports an error late.
#pragma once

// 1: the next close fails, 2: the one after it, ...; 0: none.
extern int FailingClose;
