import { Modal, ModalBody, ModalHeader } from "@patternfly/react-core";

export default function LeaveDialog(props: { service: string; onClose: () => void }) {
  return (
    <Modal isOpen variant="medium" onClose={props.onClose} aria-labelledby="dialog-title">
      <ModalHeader title="LeaveDialog" labelId="dialog-title" />
      <ModalBody />
    </Modal>
  );
}
