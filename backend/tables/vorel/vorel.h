// Everything the library exports, in one include: <vorel/vorel.h>.
//
// The library itself never includes it: its own sources include the headers
// they use, one by one.
#pragma once

#include <vorel/DiscriminantMatrix.h>
#include <vorel/DscIndividualMatrix.h>
#include <vorel/blocktree.h>
#include <vorel/databatch.h>
#include <vorel/databatchbygroup.h>
#include <vorel/driver.h>
#include <vorel/initialextremes.h>
#include <vorel/matrixbase.h>
#include <vorel/matrixlistwise.h>
#include <vorel/matrixpairwise.h>
#include <vorel/nsmatrixlistwise.h>
#include <vorel/nsmatrixpairwise.h>
#include <vorel/smatrixlistwise.h>
#include <vorel/smatrixpairwise.h>
#include <vorel/statrecords.h>
