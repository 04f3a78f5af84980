# Empty compiler generated dependencies file for tn_trace_com_quorin_tn_twamp.
# This may be replaced when dependencies are built.
