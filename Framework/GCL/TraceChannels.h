// Trace channels: one channel object for each software module of the unit, and the framework's
// redirection switch.
//
// The objects are initialised data: they are complete as soon as the library is loaded, before any
// code runs. Each starts with the threshold 0x1003, so that every report passes. The library
// itself reports on GCL_trace only and never writes a channel; the module that a channel belongs
// to, or the trace framework, may change its threshold at any time (see TraceChannel.h).
#ifndef GCL_TRACECHANNELS_H
#define GCL_TRACECHANNELS_H

#include <stdint.h>

#include "Framework/GCL/Api.h"
#include "Framework/VT/TraceChannel.h"

GCL_C_BEGIN

GCL_API extern TraceChannel CAPH_trace;    // "KIV.CAPH"
GCL_API extern TraceChannel RCCH_trace;    // "KIV.RCCH"
GCL_API extern TraceChannel RAUH_trace;    // "KIV.RAUH"
GCL_API extern TraceChannel STATE_trace;   // "KIV.STATE"
GCL_API extern TraceChannel DPDH_trace;    // "KIV.DPDH"
GCL_API extern TraceChannel BIH_trace;     // "KIV.BIH"
GCL_API extern TraceChannel I2CIDT_trace;  // "KIV.I2CIDT"
GCL_API extern TraceChannel CPRIH_trace;   // "KIV.CPRIH"
GCL_API extern TraceChannel CPRI_trace;    // "KIV.CPRI"
GCL_API extern TraceChannel KIH_trace;     // "KIV.KIH"
GCL_API extern TraceChannel DSP_trace;     // "KIV.DSP"
GCL_API extern TraceChannel BCM_trace;     // "KIV.BCM"
GCL_API extern TraceChannel DSPC_trace;    // "KIV.DSPC"
GCL_API extern TraceChannel ATPC_trace;    // "KIV.ATPC"
GCL_API extern TraceChannel INTH_trace;    // "KIV.INTH"
GCL_API extern TraceChannel TEST_trace;    // "KIV.TEST"
GCL_API extern TraceChannel TS_trace;      // "KIV.TS"
GCL_API extern TraceChannel TH_trace;      // "KIV.TH"
GCL_API extern TraceChannel RSSI_trace;    // "KIV.RSSI"
GCL_API extern TraceChannel OPH_trace;     // "KIV.OPH"
GCL_API extern TraceChannel LH_trace;      // "KIV.LH"
GCL_API extern TraceChannel IH_trace;      // "KIV.IH"
GCL_API extern TraceChannel HCCDH_trace;   // "KIV.HCCDH"
GCL_API extern TraceChannel HCC_trace;     // "KIV.HCC"
GCL_API extern TraceChannel HCH_trace;     // "KIV.HCH"
GCL_API extern TraceChannel FH_trace;      // "KIV.FH"
GCL_API extern TraceChannel FPGA_trace;    // "KIV.FPGA"
GCL_API extern TraceChannel CH_trace;      // "KIV.CH"
GCL_API extern TraceChannel AP_trace;      // "KIV.AP"
GCL_API extern TraceChannel AH_trace;      // "KIV.AH"
GCL_API extern TraceChannel AIRIF_trace;   // "KIV.AIRIF"
GCL_API extern TraceChannel XMLRPC_trace;  // "KIV.XMLRPC"
GCL_API extern TraceChannel IM_trace;      // "KIV.IM"
GCL_API extern TraceChannel GNM_trace;     // "KIV.GNM"
GCL_API extern TraceChannel GCL_trace;     // "KIV.GCL"
GCL_API extern TraceChannel AF_trace;      // "KIV.AF"
GCL_API extern TraceChannel DRIVER_trace;  // "KIV.DRIVER"
GCL_API extern TraceChannel PD_trace;      // "KIV.PD"
GCL_API extern TraceChannel FL_trace;      // "KIV.FL"
GCL_API extern TraceChannel DS_trace;      // "KIV.DS"
GCL_API extern TraceChannel DMU_trace;     // "KIV.DMU"
GCL_API extern TraceChannel DM_trace;      // "KIV.DM"
GCL_API extern TraceChannel SPC_trace;     // "KIV.SPC"
GCL_API extern TraceChannel OPC_trace;     // "KIV.OPC"
GCL_API extern TraceChannel DC_trace;      // "KIV.DC"
GCL_API extern TraceChannel FSC_trace;     // "KIV.FSC"
GCL_API extern TraceChannel FC_trace;      // "KIV.FC"
GCL_API extern TraceChannel DPD_trace;     // "KIV.DPD"
GCL_API extern TraceChannel CHANNEL_trace; // "KIV.CHANNEL"
GCL_API extern TraceChannel BC_trace;      // "KIV.BC"
GCL_API extern TraceChannel TI_trace;      // "KIV.TI"
GCL_API extern TraceChannel CCDP_trace;    // "KIV.CCDP"
GCL_API extern TraceChannel RXPC_trace;    // "KIV.RXPC"
GCL_API extern TraceChannel RXPH_trace;    // "KIV.RXPH"
GCL_API extern TraceChannel XPICH_trace;   // "KIV.XPIC.HAND"
GCL_API extern TraceChannel XPICC_trace;   // "KIV.XPIC.CTRL"
GCL_API extern TraceChannel XPIC_trace;    // "KIV.XPIC"
GCL_API extern TraceChannel PT_trace;      // "KIV.PT"

// VTF_redirect is a switch of the trace framework and of the unit's modules; it starts as 1. The
// library neither reads nor writes it.
GCL_API extern int32_t VTF_redirect;

GCL_C_END

#endif // GCL_TRACECHANNELS_H
