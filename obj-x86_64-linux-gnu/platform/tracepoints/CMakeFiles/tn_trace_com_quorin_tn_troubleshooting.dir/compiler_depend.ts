# CMAKE generated file: DO NOT EDIT!
# Timestamp file for compiler generated dependencies management for tn_trace_com_quorin_tn_troubleshooting.
