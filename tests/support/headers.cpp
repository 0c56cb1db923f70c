// Nothing: this file carries the precompiled headers of headers.h.
