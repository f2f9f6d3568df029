// The one instantiation of the camera link.
#include "src/SockControl.h"

#include "GevTLBase/GevControl_impl.h"

template class GEV::CGVCP<GEV::CSockConnection>;
template class GEV::CGevControl<GEV::CSockConnection>;
