// Tessera: a tile-based image-graph engine. This header includes every
// public header, and the IMGLIB operators task writers render with.
#pragma once

#include "cacheidstream.h"
#include "colortasks.h"
#include "compositetasks.h"
#include "exceptions.h"
#include "expressionimage.h"
#include "filtertasks.h"
#include "imagebuffer.h"
#include "imglib/channels.h"
#include "imglib/error.h"
#include "imglib/pixels.h"
#include "inplacetask.h"
#include "outputtileprioritizer.h"
#include "renderdescription.h"
#include "rendermanager.h"
#include "renderobserver.h"
#include "rendertask.h"
#include "tessera_export.h"
#include "tileid.h"
#include "transformtasks.h"
