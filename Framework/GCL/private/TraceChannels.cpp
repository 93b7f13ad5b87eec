#include "Framework/GCL/TraceChannels.h"

namespace {

// Lets every trace level through; the bits above the level are the trace framework's business.
constexpr int32_t kInitialThreshold = 0x1003;

} // namespace

TraceChannel CAPH_trace = {kInitialThreshold, "KIV.CAPH"};
TraceChannel RCCH_trace = {kInitialThreshold, "KIV.RCCH"};
TraceChannel RAUH_trace = {kInitialThreshold, "KIV.RAUH"};
TraceChannel STATE_trace = {kInitialThreshold, "KIV.STATE"};
TraceChannel DPDH_trace = {kInitialThreshold, "KIV.DPDH"};
TraceChannel BIH_trace = {kInitialThreshold, "KIV.BIH"};
TraceChannel I2CIDT_trace = {kInitialThreshold, "KIV.I2CIDT"};
TraceChannel CPRIH_trace = {kInitialThreshold, "KIV.CPRIH"};
TraceChannel CPRI_trace = {kInitialThreshold, "KIV.CPRI"};
TraceChannel KIH_trace = {kInitialThreshold, "KIV.KIH"};
TraceChannel DSP_trace = {kInitialThreshold, "KIV.DSP"};
TraceChannel BCM_trace = {kInitialThreshold, "KIV.BCM"};
TraceChannel DSPC_trace = {kInitialThreshold, "KIV.DSPC"};
TraceChannel ATPC_trace = {kInitialThreshold, "KIV.ATPC"};
TraceChannel INTH_trace = {kInitialThreshold, "KIV.INTH"};
TraceChannel TEST_trace = {kInitialThreshold, "KIV.TEST"};
TraceChannel TS_trace = {kInitialThreshold, "KIV.TS"};
TraceChannel TH_trace = {kInitialThreshold, "KIV.TH"};
TraceChannel RSSI_trace = {kInitialThreshold, "KIV.RSSI"};
TraceChannel OPH_trace = {kInitialThreshold, "KIV.OPH"};
TraceChannel LH_trace = {kInitialThreshold, "KIV.LH"};
TraceChannel IH_trace = {kInitialThreshold, "KIV.IH"};
TraceChannel HCCDH_trace = {kInitialThreshold, "KIV.HCCDH"};
TraceChannel HCC_trace = {kInitialThreshold, "KIV.HCC"};
TraceChannel HCH_trace = {kInitialThreshold, "KIV.HCH"};
TraceChannel FH_trace = {kInitialThreshold, "KIV.FH"};
TraceChannel FPGA_trace = {kInitialThreshold, "KIV.FPGA"};
TraceChannel CH_trace = {kInitialThreshold, "KIV.CH"};
TraceChannel AP_trace = {kInitialThreshold, "KIV.AP"};
TraceChannel AH_trace = {kInitialThreshold, "KIV.AH"};
TraceChannel AIRIF_trace = {kInitialThreshold, "KIV.AIRIF"};
TraceChannel XMLRPC_trace = {kInitialThreshold, "KIV.XMLRPC"};
TraceChannel IM_trace = {kInitialThreshold, "KIV.IM"};
TraceChannel GNM_trace = {kInitialThreshold, "KIV.GNM"};
TraceChannel GCL_trace = {kInitialThreshold, "KIV.GCL"};
TraceChannel AF_trace = {kInitialThreshold, "KIV.AF"};
TraceChannel DRIVER_trace = {kInitialThreshold, "KIV.DRIVER"};
TraceChannel PD_trace = {kInitialThreshold, "KIV.PD"};
TraceChannel FL_trace = {kInitialThreshold, "KIV.FL"};
TraceChannel DS_trace = {kInitialThreshold, "KIV.DS"};
TraceChannel DMU_trace = {kInitialThreshold, "KIV.DMU"};
TraceChannel DM_trace = {kInitialThreshold, "KIV.DM"};
TraceChannel SPC_trace = {kInitialThreshold, "KIV.SPC"};
TraceChannel OPC_trace = {kInitialThreshold, "KIV.OPC"};
TraceChannel DC_trace = {kInitialThreshold, "KIV.DC"};
TraceChannel FSC_trace = {kInitialThreshold, "KIV.FSC"};
TraceChannel FC_trace = {kInitialThreshold, "KIV.FC"};
TraceChannel DPD_trace = {kInitialThreshold, "KIV.DPD"};
TraceChannel CHANNEL_trace = {kInitialThreshold, "KIV.CHANNEL"};
TraceChannel BC_trace = {kInitialThreshold, "KIV.BC"};
TraceChannel TI_trace = {kInitialThreshold, "KIV.TI"};
TraceChannel CCDP_trace = {kInitialThreshold, "KIV.CCDP"};
TraceChannel RXPC_trace = {kInitialThreshold, "KIV.RXPC"};
TraceChannel RXPH_trace = {kInitialThreshold, "KIV.RXPH"};
TraceChannel XPICH_trace = {kInitialThreshold, "KIV.XPIC.HAND"};
TraceChannel XPICC_trace = {kInitialThreshold, "KIV.XPIC.CTRL"};
TraceChannel XPIC_trace = {kInitialThreshold, "KIV.XPIC"};
TraceChannel PT_trace = {kInitialThreshold, "KIV.PT"};

int32_t VTF_redirect = 1;
