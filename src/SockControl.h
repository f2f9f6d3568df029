// The camera link of the daemon: CGevControl over CSockConnection, compiled once in SockControl.cpp.
#pragma once

#include "GevTLBase/GevControl.h"
#include "src/SockConnection.h"

extern template class GEV::CGVCP<GEV::CSockConnection>;
extern template class GEV::CGevControl<GEV::CSockConnection>;
